#include "service/ClientSocket.h"

#include <algorithm>
#include <cerrno>
#include <new>

#include <sys/socket.h>

#include "service/TlsContext.h"

namespace postwire {

ClientSocket::~ClientSocket() {
    if (m_tls) m_tls->close();
}

void ClientSocket::sayToProxy(std::string const& text) {
    for (std::size_t at = 0; at < text.size();) {
        ssize_t const n = ::send(m_descriptor.get(), text.data() + at, text.size() - at,
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EINTR)
            m_watch->raise(ClientError::Code::connect, "the connection to the proxy failed", errno);
        if (n < 0) m_watch->await(m_descriptor.get(), POLLOUT);
        at += static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
}

void ClientSocket::startTls(TlsContext const& context, std::string const& host) {
    try {
        m_tls = context.connect(m_descriptor.get(), host);
        while (!m_tls->shakeHands())
            m_watch->await(m_descriptor.get(), m_tls->hasUnsent() ? POLLIN | POLLOUT : POLLIN);
    } catch (TlsFailure const& e) {
        m_tls.reset();
        m_watch->raise(ClientError::Code::tls, "no TLS with " + host + ": " + e.text,
                       e.systemError);
    }
}

int ClientSocket::tryRead(char* bytes, std::size_t size) {
    int n = 0;
    if (m_tls) {
        try {
            n = m_tls->read(bytes, size);
        } catch (TlsFailure const& e) {
            m_watch->raise(m_watch->codeOfFailure(), "the connection failed: " + e.text,
                           e.systemError);
        }
    } else {
        do n = static_cast<int>(::recv(m_descriptor.get(), bytes, size, MSG_DONTWAIT));
        while (n < 0 && errno == EINTR);
        if (n < 0 && errno != EAGAIN)
            m_watch->raise(m_watch->codeOfFailure(), "the connection failed", errno);
    }
    if (n < 0) return -1;
    if (m_trace && n > 0) m_trace->received(bytes, static_cast<std::size_t>(n));
    m_watch->received(static_cast<std::size_t>(n));
    return n;
}

std::size_t ClientSocket::trySend(char const* bytes, std::size_t size) {
    std::size_t taken = 0;
    if (m_tls) {
        try {
            taken = m_tls->write(bytes, size);
        } catch (TlsFailure const& e) {
            m_watch->raise(ClientError::Code::send, "the connection failed: " + e.text,
                           e.systemError);
        }
    } else {
        ssize_t n = 0;
        do n = ::send(m_descriptor.get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        while (n < 0 && errno == EINTR);
        if (n < 0 && errno != EAGAIN)
            m_watch->raise(ClientError::Code::send, "the connection failed", errno);
        taken = static_cast<std::size_t>(std::max<ssize_t>(n, 0));
    }
    if (m_trace && taken > 0) m_trace->sent(bytes, taken);
    m_watch->sent(taken);
    return taken;
}

void ClientSocket::flush() try {
    while (m_tls && !m_tls->flush()) m_watch->await(m_descriptor.get(), POLLOUT);
} catch (TlsFailure const& e) {
    m_watch->raise(ClientError::Code::send, "the connection failed: " + e.text, e.systemError);
}

void ClientSocket::awaitInput() {
    if (!m_tls) m_watch->await(m_descriptor.get(), POLLIN);
}

bool ClientSocket::isStale() noexcept {
    char byte = 0;
    if (!m_tls) {
        ssize_t const n = ::recv(m_descriptor.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return n >= 0 || (errno != EAGAIN && errno != EINTR);
    }
    try {
        return m_tls->read(&byte, 1) != -1;
    } catch (TlsFailure const&) {
        return true;
    } catch (std::bad_alloc const&) {
        return true;
    }
}

int ClientSocket::read(char* bytes, std::size_t size) {
    for (;;) {
        int const n = tryRead(bytes, size);
        if (n != -1) return n;
        m_watch->await(m_descriptor.get(), POLLIN);
    }
}

}  // namespace postwire
