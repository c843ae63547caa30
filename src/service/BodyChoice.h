#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "foundation/Export.h"

#include "parser/HTTPMsgHandler.h"

namespace postwire {

class Request;

// How the body of one request is read, as the program decides when its head is there.
//
// Ownership: the handler is shared until the request is answered.
struct POSTWIRE_EXPORT BodyChoice {
    // Gets the request's events as they come, its head's first, instead of the tree: for bodies of
    // any size, which it reads on a thread that waits for the peer, at the cost of a hand-over to
    // that. What it raises is answered 500.
    // A declared length of 2^31 - 1 or more is 413; such a body comes in chunks.
    std::shared_ptr<HTTPMsgHandler> handler;
    // Bytes of all bodies of the request together, beyond which it is 413; 0: as the policy says.
    long long maxBody = 0;
    // From the request's first byte to its end; 0: as the options say.
    std::chrono::milliseconds limit{0};
};

// Called when the head of a request with a body is there: its message is empty yet, its lines and
// its target are not. Called from several threads at once.
using BodyChooser = std::function<BodyChoice(Request&)>;

}  // namespace postwire
