#include "service/TlsSocket.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <poll.h>

#include "foundation/QORThrowable.h"

#include "foundation/GuardedAllocation.h"
#include "service/TlsSession.h"
#include "service/WireTrace.h"

static char const kSourceFile[] = "TlsSocket";

namespace postwire {

namespace {

// With the errno of now.
[[noreturn]] void raiseHere(int line, int id, char const* details) {
    throw SoapSocketException(kSourceFile, line, id, details, errno);
}

}  // namespace

TlsSocket::TlsSocket(TlsContext const& context, std::string host)
    : m_context(context), m_peer(std::move(host)), m_isServer(false) {}

TlsSocket::TlsSocket(TlsContext const& context, std::string host, int descriptor)
    : SoapSocket(descriptor), m_context(context), m_peer(std::move(host)), m_isServer(false) {}

TlsSocket::TlsSocket(TlsContext const& context, int descriptor)
    : SoapSocket(descriptor), m_context(context), m_isServer(true) {}

TlsSocket::~TlsSocket() {
    if (m_session) m_session->close();
}

// A socket that is opened anew has another session.
void TlsSocket::Close() {
    if (m_session) m_session->close();
    m_session.reset();
    SoapSocket::Close();
}

void TlsSocket::shakeHands() {
    if (m_session && m_session->isEstablished()) return;
    int const id = SoapSocketException::SOAP_ERR_OPEN;
    m_refusal.clear();
    if (!m_session)
        m_session = m_isServer ? m_context.accept(getDescriptor())
                               : m_context.connect(getDescriptor(), m_peer);
    while (!orRaise(id, [this] { return m_session->shakeHands(); }))
        await(m_session->hasUnsent() ? POLLIN | POLLOUT : POLLIN, id);
}

void TlsSocket::ReadBuffer(unsigned char* pInputBuff, int size, int* pBytesRead) {
    QOR_ASSERT(pInputBuff);
    QOR_ASSERT(pBytesRead);
    QOR_ASSERT(size >= 0);
    int const id = SoapSocketException::SOAP_ERR_READ;
    *pBytesRead = -1;
    shakeHands();
    auto* const bytes = reinterpret_cast<char*>(pInputBuff);
    auto const room = static_cast<std::size_t>(size);
    int got = 0;
    while (size > 0 && (got = orRaise(id, [&] { return m_session->read(bytes, room); })) == -1)
        await(m_session->hasUnsent() ? POLLIN | POLLOUT : POLLIN, id);
    *pBytesRead = got;
    trace("read", pInputBuff, got);
    if (m_times) m_times->received(bytes, static_cast<std::size_t>(got));
}

void TlsSocket::WriteBuffer(unsigned char const* pOutputBuff, int size, int* pBytesWritten) {
    QOR_ASSERT(pBytesWritten);
    QOR_ASSERT(pOutputBuff);
    QOR_ASSERT(size >= 0);
    int const id = SoapSocketException::SOAP_ERR_WRITE;
    *pBytesWritten = 0;
    shakeHands();
    auto const* const bytes = reinterpret_cast<char const*>(pOutputBuff);
    auto const all = static_cast<std::size_t>(size);
    std::size_t taken = 0;
    auto const write = [&] {
        taken += m_session->write(bytes + taken, all - taken);
        return m_session->flush() && taken == all;
    };
    while (!orRaise(id, write)) await(POLLOUT, id);
    *pBytesWritten = size;
    if (size > 0) trace("write", pOutputBuff, size);
    if (size > 0 && m_times) m_times->sent(bytes, all);
}

// What TLS says of a failure becomes the details of the exception.
template <class Operation>
auto TlsSocket::orRaise(int id, Operation const& operation) -> decltype(operation()) {
    try {
        return operation();
    } catch (TlsFailure const& e) {
        m_refusal = e.text;
        errno = e.systemError;
    }
    raiseHere(__LINE__, id, m_refusal.c_str());
}

// As SoapSocket waits: without a limit for room, and for input within that of the callback.
void TlsSocket::await(short events, int id) {
    bool const isLimited = m_timeLimitCallback && (events & POLLIN);
    if (!isLimited && (::fcntl(getDescriptor(), F_GETFL) & O_NONBLOCK)) {
        errno = EAGAIN;
        saveSysError();
        raiseHere(__LINE__, id, m_lastError.str());
    }
    pollfd socket{getDescriptor(), events, 0};
    int const ready = ::poll(&socket, 1, isLimited ? m_timeLimitInterval : -1);
    if (isLimited && ready == 0) m_timeLimitCallback(m_timeLimitArg);
}

void TlsSocket::echo(char const* path) {
    SoapSocket::echo(path);
    m_times.reset();
    if (!m_echoFile) return;
    constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    Descriptor times(::open((std::string(path) + ".times").c_str(), kFlags, 0600));
    if (times.get() != -1)
        m_times = std::make_unique<WireTrace>(Descriptor(), std::move(times), true);
}

std::string TlsSocket::version() const {
    return m_session && m_session->isEstablished() ? m_session->version() : std::string();
}

bool TlsSocket::isResumed() const { return m_session && m_session->isResumed(); }

std::string TlsSocket::peerSubject() const {
    return m_session && m_session->isEstablished() ? m_session->peerSubject() : std::string();
}

}  // namespace postwire
