#pragma once

#include <string_view>

#include "foundation/Export.h"

namespace postwire {

struct Exchange;

// The answer to one request. A handler that gives none answers 202 with an empty body, as one-way
// messages want it.
//
// Ownership: the server's; it ends with the handler's call. Texts and bytes are not kept beyond a
//   call, or are copied.
// Raises: ServiceError::Code::usage for a second answer, for a status outside 200 to 599, and for
//   a name or text that would break its line; Code::peerGone and Code::timeLimit when the answer
//   can't be sent: a handler may let both pass.
// Rule: used by the thread that runs the handler, also within a catch. The server adds Date,
//   Content-Length and Connection.
class POSTWIRE_EXPORT Response {
public:
    explicit Response(Exchange& exchange) : m_exchange(exchange) {}
    Response(Response const&) = delete;
    Response& operator=(Response const&) = delete;

    // A header line of the answer to come.
    void setHeader(std::string_view name, std::string_view text);

    // The whole answer. Of a large one the call waits until the peer has taken all but what fits
    // into the server's memory for bodies.
    void send(int status, std::string_view type, std::string_view body);

private:
    Exchange& m_exchange;
};

}  // namespace postwire
