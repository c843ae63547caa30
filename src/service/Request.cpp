#include "service/Request.h"

#include "service/Exchange.h"

namespace postwire {

std::string_view Request::uri() const { return m_exchange.reader.uri(); }
int Request::minorVersion() const { return m_exchange.reader.minorVersion(); }
std::string Request::peerAddress() const { return m_exchange.connection->peer.host(); }
int Request::peerPort() const { return m_exchange.connection->peer.port(); }
std::string Request::tlsVersion() const {
    auto const& tls = m_exchange.connection->tls;
    return tls ? tls->version() : std::string();
}

std::string Request::clientCertificate() const {
    auto const& tls = m_exchange.connection->tls;
    return tls ? tls->peerSubject() : std::string();
}

HTTPMessage& Request::message() { return m_exchange.reader.message(); }
HTTPMsgHandler* Request::bodyHandler() const {
    auto const& choice = m_exchange.connection->choice;
    return choice ? choice->handler.get() : nullptr;
}

int Request::headCount() const { return m_exchange.reader.headCount(); }

std::vector<HeadLine> Request::headLines(int head) const {
    return m_exchange.reader.headLines(head);
}

bool Request::cancelled() const { return m_exchange.connection->isHalfClosed(); }

}  // namespace postwire
