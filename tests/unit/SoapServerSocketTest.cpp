#include <gtest/gtest.h>

#include "support/SocketScript.h"

TEST(SoapServerSocket, ListensAndAcceptsAsTheTableSays) { checkSocketScripts("server_calls.txt"); }
