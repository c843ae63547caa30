#include <gtest/gtest.h>

#include "support/SocketScript.h"

TEST(SoapSocketFault, LeavesIdTextCountsAndDescriptorsAsTheTableSays) {
    checkSocketScripts("socket_faults.txt");
}
