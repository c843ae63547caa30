#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMsgHandler.h"
#include "service/HeadLine.h"

namespace postwire {

struct Exchange;

// A request that has been read, as a handler gets it.
//
// Ownership: the server's; it and all that it gives end with the handler's call.
// Rule: used by the thread that runs the handler.
class POSTWIRE_EXPORT Request {
public:
    explicit Request(Exchange& exchange) : m_exchange(exchange) {}
    Request(Request const&) = delete;
    Request& operator=(Request const&) = delete;

    // The request target as it came.
    [[nodiscard]] std::string_view uri() const;

    // Of HTTP/1.x.
    [[nodiscard]] int minorVersion() const;

    // The peer's address without its port; empty for a socket of the file system.
    [[nodiscard]] std::string peerAddress() const;
    [[nodiscard]] int peerPort() const;

    // "TLSv1.3"; empty for clear text.
    [[nodiscard]] std::string tlsVersion() const;

    // The subject of the certificate that the client has shown, as RFC 2253 writes it; empty where
    // none was asked for.
    [[nodiscard]] std::string clientCertificate() const;

    // The tree, for the handler to look at, take from and change.
    [[nodiscard]] HTTPMessage& message();

    // What chose to take the body as it came; null where it is in the tree.
    [[nodiscard]] HTTPMsgHandler* bodyHandler() const;

    // The lines of the message's own head, and of its parts' in the order in which they came, as
    // the tree does not keep them: it joins, sorts and cuts. Part i of a message whose parts have
    // no parts is head i + 1.
    [[nodiscard]] int headCount() const;
    [[nodiscard]] std::vector<HeadLine> headLines(int head = 0) const;

    // Whether the peer has closed its side of the connection, so that it may not wait for the
    // answer any more. One that closed only that side still gets it.
    [[nodiscard]] bool cancelled() const;

private:
    Exchange& m_exchange;
};

}  // namespace postwire
