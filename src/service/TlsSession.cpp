#include "service/TlsSession.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <new>
#include <utility>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

namespace postwire {

namespace {

constexpr std::size_t kRecord = 16384;
// What a peer that reads nothing can have said to it; more is not meant well.
constexpr std::size_t kMostUnsent = 1 << 20;

}  // namespace

// How OpenSSL reads from and writes to the descriptor: without a wait and without SIGPIPE, which
// its own way would raise.
struct DescriptorBio {
    static int read(BIO* bio, char* bytes, int size) {
        TlsSession& self = of(bio);
        BIO_clear_retry_flags(bio);
        for (;;) {
            ssize_t const n =
                ::recv(self.m_descriptor, bytes, static_cast<std::size_t>(size), MSG_DONTWAIT);
            if (n > 0) return static_cast<int>(n);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno == EAGAIN) {
                BIO_set_retry_read(bio);
                return -1;
            }
            if (n < 0) self.m_systemError = errno;
            self.m_ended = true;
            return n == 0 ? 0 : -1;
        }
    }

    // Takes all: what the system does not take now goes out before anything else.
    static int write(BIO* bio, char const* bytes, int size) {
        TlsSession& self = of(bio);
        BIO_clear_retry_flags(bio);
        auto const all = static_cast<std::size_t>(size);
        if (self.m_unsent.size() + all > kMostUnsent) return -1;
        try {
            self.m_unsent.append(bytes, all);
        } catch (std::bad_alloc const&) {
            self.noteLackOfMemory();
            return -1;
        }
        return self.send() ? size : -1;
    }

    static long control(BIO* bio, int command, long, void*) {
        if (command == BIO_CTRL_EOF) return of(bio).m_ended ? 1 : 0;
        return command == BIO_CTRL_FLUSH ? 1 : 0;
    }

    static int create(BIO* bio) {
        BIO_set_init(bio, 1);
        return 1;
    }

    static BIO_METHOD* method() {
        static BIO_METHOD* const kMethod = [] {
            BIO_METHOD* const made =
                ::BIO_meth_new(::BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "descriptor");
            if (!made) throw std::bad_alloc();
            ::BIO_meth_set_read(made, read);
            ::BIO_meth_set_write(made, write);
            ::BIO_meth_set_ctrl(made, control);
            ::BIO_meth_set_create(made, create);
            return made;
        }();
        return kMethod;
    }

private:
    static TlsSession& of(BIO* bio) { return *static_cast<TlsSession*>(::BIO_get_data(bio)); }
};

void TlsSession::Free::operator()(ssl_st* session) const { ::SSL_free(session); }

TlsSession::TlsSession(ssl_st* session, int descriptor, std::shared_ptr<void const> context)
    : m_context(std::move(context)), m_session(session), m_descriptor(descriptor) {
    BIO* const bio = ::BIO_new(DescriptorBio::method());
    if (!bio) throw std::bad_alloc();
    ::BIO_set_data(bio, this);
    ::SSL_set_bio(session, bio, bio);
    SSL_set_app_data(session, this);
}

TlsSession::~TlsSession() = default;

bool TlsSession::shakeHands() {
    if (!m_established) {
        ::ERR_clear_error();
        int const result = ::SSL_do_handshake(m_session.get());
        if (result != 1 && ::SSL_get_error(m_session.get(), result) != SSL_ERROR_WANT_READ)
            fail(result);
        m_established = result == 1;
    }
    return flush() && m_established;
}

int TlsSession::read(char* bytes, std::size_t size) {
    ::ERR_clear_error();
    int const result =
        ::SSL_read(m_session.get(), bytes, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
    // What can't be sent stops no reading of what the peer said before.
    bool const canSend = !hasUnsent() || send();
    if (result > 0) return result;
    if (!canSend) fail(result);
    switch (::SSL_get_error(m_session.get(), result)) {
        case SSL_ERROR_WANT_READ:
            return -1;
        case SSL_ERROR_ZERO_RETURN:
            return 0;
        default:
            fail(result);
    }
}

std::size_t TlsSession::write(char const* bytes, std::size_t size) {
    std::size_t taken = 0;
    while (taken < size && (taken > 0 ? send() && !hasUnsent() : flush())) {
        std::size_t const piece = std::min(size - taken, kRecord);
        ::ERR_clear_error();
        int const result = ::SSL_write(m_session.get(), bytes + taken, static_cast<int>(piece));
        // What went out before is told first: the next call fails again.
        if (result <= 0 && taken > 0) return taken;
        if (result <= 0) fail(result);
        taken += static_cast<std::size_t>(result);
    }
    return taken;
}

bool TlsSession::holdsInput() const { return ::SSL_has_pending(m_session.get()) == 1; }

bool TlsSession::flush() {
    if (!send()) fail(-1);
    return !hasUnsent();
}

// False when the connection has failed.
bool TlsSession::send() {
    while (hasUnsent()) {
        ssize_t const n = ::send(m_descriptor, m_unsent.data() + m_sent, m_unsent.size() - m_sent,
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n >= 0) m_sent += static_cast<std::size_t>(n);
        if (n < 0 && errno == EAGAIN) return true;
        if (n < 0 && errno != EINTR) {
            m_systemError = errno;
            return false;
        }
    }
    if (m_unsent.capacity() > kRecord / 4)
        std::string().swap(m_unsent);
    else
        m_unsent.clear();
    m_sent = 0;
    return true;
}

void TlsSession::close() noexcept {
    if (!m_established || m_failed) return;
    m_failed = true;  // nothing more is said
    ::ERR_clear_error();
    ::SSL_shutdown(m_session.get());
    send();
}

bool TlsSession::isResumed() const { return ::SSL_session_reused(m_session.get()) == 1; }

std::string TlsSession::version() const { return ::SSL_get_version(m_session.get()); }

void TlsSession::fail(int result) {
    m_failed = true;
    if (m_outOfMemory) {
        ::ERR_clear_error();
        throw std::bad_alloc();
    }
    int const error = ::SSL_get_error(m_session.get(), result);
    unsigned long const code = ::ERR_peek_error();
    char const* const reason = ::ERR_reason_error_string(code);
    TlsFailure failure;
    failure.systemError = m_systemError;
    failure.isEnd = m_ended && m_established && m_systemError == 0;
    if (!m_distrust.empty())
        failure.text = m_distrust;
    else if (m_systemError != 0)
        failure.text = "the connection failed";
    else if (m_ended)
        failure.text = m_established ? "the peer closed it without saying that this is the end"
                                     : "the peer closed it within the handshake";
    else
        failure.text = reason ? reason : "error " + std::to_string(error);
    ::ERR_clear_error();
    throw failure;
}

}  // namespace postwire
