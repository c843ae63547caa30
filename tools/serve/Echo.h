#pragma once

#include "service/Request.h"
#include "service/Response.h"

// Answers with the request's message again: its header lines as they came and its body, or each of
// its parts with its own. Lines that belong to the connection or to the request alone are left out,
// and control characters in a line, which only lenient reading lets in, become blanks. The boundary
// is the request's, unless it occurs in a part.
//
// In chunks of at most that many bytes, or with a length where the size is 0. Nothing of it is held
// but what the client does not take at once.
void sendEcho(postwire::Request& request, postwire::Response& response, int chunkSize);
