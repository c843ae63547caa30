#pragma once

#include <string>

struct Request;

// What arrived, as XML: the URI, and for the message and each of its parts the type, the size and
// the SHA-256 of the body.
std::string makeReceipt(Request& request);
