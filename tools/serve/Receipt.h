#pragma once

#include <string>

#include "service/Request.h"

// What arrived, as XML: the URI, and for the message and each of its parts the type, the size and
// the SHA-256 of the body.
std::string makeReceipt(postwire::Request& request);
