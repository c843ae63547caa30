#include "socket/SoapSocket.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "foundation/QORThrowable.h"

#include "foundation/GuardedAllocation.h"
#include "socket/QORSocketAddress.h"

static char const kSourceFile[] = "SoapSocket";

namespace {

char const kAddressModule[] = "TOV_Crypto_Interface";

// The size of an IPv4 address, whatever the family: the system refuses any other kind.
constexpr socklen_t kAddressLength = 16;
constexpr int kBacklog = 20;

// The port stands at the same place in addresses of both IP families.
constexpr std::size_t kPortOffset = offsetof(sockaddr_in, sin_port);

constexpr sockaddr_storage addressOfFamily(sa_family_t family) {
    sockaddr_storage address{};
    address.ss_family = family;
    return address;
}

bool isNone(sockaddr_storage const& address) {
    return address.ss_family == SoapSocket::MaxIPAddress.ss_family;
}

sockaddr* asSockaddr(sockaddr_storage& address) { return reinterpret_cast<sockaddr*>(&address); }

sockaddr const* asSockaddr(sockaddr_storage const& address) {
    return reinterpret_cast<sockaddr const*>(&address);
}

void setPort(sockaddr_storage& address, int port) {
    in_port_t const wirePort = htons(static_cast<in_port_t>(port));
    std::memcpy(reinterpret_cast<char*>(&address) + kPortOffset, &wirePort, sizeof wirePort);
}

int portOf(sockaddr_storage const& address) {
    in_port_t wirePort = 0;
    std::memcpy(&wirePort, reinterpret_cast<char const*>(&address) + kPortOffset, sizeof wirePort);
    return ntohs(wirePort);
}

sockaddr_storage firstAddress(QORSocketAddress& module, char* host, int port, int flags) {
    unsigned long status = 0;
    module.TOV_ResolveAddress(host, static_cast<unsigned short>(port), flags, &status);
    sockaddr_storage address{};
    module.TOV_GetAddress(0, &address);
    return address;
}

void requireAddress(sockaddr_storage const& address, char const* operation) {
    if (isNone(address))
        QORIllegalStateError(0, operation)
            .hurl(QORFileLocation(kSourceFile, __LINE__), nullptr, "QOR_THROW");
}

// Repeats a call of the system as long as signals interrupt it.
template <class Call>
int uninterrupted(Call const& call) {
    for (;;) {
        int const result = static_cast<int>(call());
        if (result != -1 || errno != EINTR) return result;
    }
}

// Releases a descriptor within an operation whose failure is still to be reported.
template <class Release>
void keepingErrno(Release const& release) {
    int const error = errno;
    release();
    errno = error;
}

void shutDownAndClose(int descriptor) {
    ::shutdown(descriptor, SHUT_RDWR);
    ::close(descriptor);
}

// The accepted descriptor to go on with, or -1 when it can't be marked; it is closed then. Number 0
// says that there was no connection, so one that lands there moves.
int markCloseOnExec(int accepted) {
    int kept = accepted;
    if (accepted == 0)
        kept = ::fcntl(accepted, F_DUPFD_CLOEXEC, 1);
    else if (::fcntl(accepted, F_SETFD, FD_CLOEXEC) == -1)
        kept = -1;
    if (kept != accepted) keepingErrno([accepted] { ::close(accepted); });
    return kept;
}

// A message leaves in several sends, and none of them should wait until the one before has been
// acknowledged. Without this option all still works, so no one asks whether it was set.
void sendWithoutDelay(int descriptor) {
    keepingErrno([descriptor] {
        int const on = 1;
        ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    });
}

}  // namespace

SoapSocketException::SoapSocketException(char const* fileName, int line, int id,
                                         char const* details)
    : SoapSocketException(fileName, line, id, details, 0) {}

SoapSocketException::SoapSocketException(char const* fileName, int line, int id,
                                         char const* details, int systemError)
    : m_id(id), m_line(line), m_fileName{}, m_details{}, m_systemError(systemError) {
    std::string_view(fileName ? fileName : "null").copy(m_fileName, sizeof m_fileName - 1);
    std::string_view(details ? details : "").copy(m_details, sizeof m_details - 1);
}

SoapSocketException::SoapSocketException(SoapSocketException const&) = default;
SoapSocketException& SoapSocketException::operator=(SoapSocketException const&) = default;
SoapSocketException::~SoapSocketException() = default;

char const* SoapSocketException::getExceptionName() { return "SoapSocketException"; }

SoapExEndofStream::SoapExEndofStream(char const* fileName, int line)
    : SoapSocketException(fileName, line, SOAP_ERR_END_OF_STREAM, "SoapExEndofStream") {}

SoapExEndofStream::SoapExEndofStream(SoapExEndofStream const&) = default;
SoapExEndofStream& SoapExEndofStream::operator=(SoapExEndofStream const&) = default;
SoapExEndofStream::~SoapExEndofStream() = default;

char const* SoapExEndofStream::getExceptionName() { return "SoapExEndofStream"; }

SoapSocketInit::SoapSocketInit() = default;
SoapSocketInit::~SoapSocketInit() {}

SoapSocketInputStream::SoapSocketInputStream() : mp_soap_socket(nullptr) {}

SoapSocketInputStream::~SoapSocketInputStream() { mp_soap_socket = nullptr; }

void SoapSocketInputStream::setSoapSocket(SoapSocket* socket) { mp_soap_socket = socket; }

int SoapSocketInputStream::read(QORByteBuffer& buf, int n) {
    QOR_ASSERT(mp_soap_socket);
    unsigned int const length = buf.pcount();
    // A negative count is for ReadBuffer to refuse, and must not become a size before.
    if (n > 0) buf.reserve(length + static_cast<unsigned int>(n));
    int count = 0;
    mp_soap_socket->ReadBuffer(reinterpret_cast<unsigned char*>(buf.str()) + length, n, &count);
    buf.setLength(length + static_cast<unsigned int>(count));
    return count > 0 ? count : -1;
}

int SoapSocketInputStream::read(char* bytes, int n) {
    QOR_ASSERT(mp_soap_socket);
    int count = 0;
    mp_soap_socket->ReadBuffer(reinterpret_cast<unsigned char*>(bytes), n, &count);
    return count > 0 ? count : -1;
}

int SoapSocketInputStream::read() {
    QOR_ASSERT(mp_soap_socket);
    unsigned char byte = 0;
    int count = 0;
    mp_soap_socket->ReadBuffer(&byte, 1, &count);
    return count == 1 ? byte : -1;
}

SoapSocketOutputStream::SoapSocketOutputStream() : mp_soap_socket(nullptr) {}

SoapSocketOutputStream::~SoapSocketOutputStream() { mp_soap_socket = nullptr; }

void SoapSocketOutputStream::setSoapSocket(SoapSocket* socket) { mp_soap_socket = socket; }

void SoapSocketOutputStream::write(char const* data, int length) {
    QOR_ASSERT(mp_soap_socket);
    int count = 0;
    mp_soap_socket->WriteBuffer(reinterpret_cast<unsigned char const*>(data), length, &count);
}

sockaddr_storage const SoapSocket::MaxIPAddress = addressOfFamily(0xFFFF);
sockaddr_storage const SoapSocket::s_localIPAddress = addressOfFamily(0xFFFE);

SoapSocket::SoapSocket()
    : m_lastError(256, 256),
      m_socket(-1),
      m_ioSocket(-1),
      m_timeLimitCallback(nullptr),
      m_timeLimitArg(nullptr),
      m_timeLimitInterval(0),
      m_port(0),
      m_address(s_localIPAddress),
      m_open(0),
      m_echoFile(nullptr) {
    m_inputStream.setSoapSocket(this);
    m_outputStream.setSoapSocket(this);
}

SoapSocket::SoapSocket(int fd) : SoapSocket() {
    m_ioSocket = fd;
    m_open = 1;
}

SoapSocket::SoapSocket(int port, sockaddr_storage address) : SoapSocket() {
    m_port = port;
    m_address = isNone(address) ? getMyIPAddress() : address;
}

SoapSocket::~SoapSocket() {
    runQuietly([this] { echo(nullptr); });
    runQuietly([this] { SoapSocket::Close(); });
}

void SoapSocket::Close() {
    m_open = 0;
    if (m_ioSocket == m_socket) m_ioSocket = -1;  // after Open the two are one
    for (int* descriptor : {&m_socket, &m_ioSocket}) {
        if (*descriptor != -1) shutDownAndClose(*descriptor);
        *descriptor = -1;
    }
}

void SoapSocket::setTimeLimitCallback(void (*callback)(void*), void* argument, int interval) {
    m_timeLimitCallback = callback;
    m_timeLimitArg = argument;
    m_timeLimitInterval = interval;
}

void SoapSocket::saveSysError() {
    char const* const text = std::strerror(errno);
    m_lastError.reset();
    m_lastError << (text ? text : "Unknown error code");
}

void SoapSocket::ReadBuffer(unsigned char* pInputBuff, int size, int* pBytesRead) {
    QOR_ASSERT(pInputBuff);
    QOR_ASSERT(pBytesRead);
    QOR_ASSERT(size >= 0);
    waitForInput();
    auto const room = static_cast<std::size_t>(size);
    *pBytesRead = uninterrupted([&] { return ::recv(m_ioSocket, pInputBuff, room, 0); });
    if (*pBytesRead == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_READ);
    trace("read", pInputBuff, *pBytesRead);
}

// The callback may turn itself off; then the receive is what waits.
void SoapSocket::waitForInput() {
    while (m_timeLimitCallback) {
        if (m_ioSocket == -1 && m_timeLimitInterval < 0) {
            errno = EBADF;  // poll takes -1 for a descriptor to wait for in vain
            raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_READ);
        }
        pollfd input{m_ioSocket, POLLIN, 0};
        int const ready = uninterrupted([&] { return ::poll(&input, 1, m_timeLimitInterval); });
        if (ready == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_READ);
        if (ready > 0) return;
        m_timeLimitCallback(m_timeLimitArg);
    }
}

void SoapSocket::WriteBuffer(unsigned char const* pOutputBuff, int size, int* pBytesWritten) {
    QOR_ASSERT(pBytesWritten);
    QOR_ASSERT(pOutputBuff);
    QOR_ASSERT(size >= 0);
    *pBytesWritten = size;
    for (int left = size; left > 0;) {
        auto const count = static_cast<std::size_t>(left);
        int const sent = uninterrupted([&] { return ::send(m_ioSocket, pOutputBuff, count, 0); });
        if (sent == -1) {
            *pBytesWritten = 0;
            raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_WRITE);
        }
        trace("write", pOutputBuff, sent);
        pOutputBuff += sent;
        left -= sent;
    }
}

// Flushed each time: a trace is read when something has gone wrong.
void SoapSocket::trace(char const* direction, unsigned char const* bytes, int n) {
    if (!m_echoFile) return;
    std::fprintf(m_echoFile, "\n<%s[%d]>\n", direction, n);
    std::fwrite(bytes, 1, static_cast<std::size_t>(n), m_echoFile);
    std::fflush(m_echoFile);
}

void SoapSocket::SetServerHostInfo(char* host) {
    SetServerHostInfo(static_cast<char const*>(host));
}

void SoapSocket::SetServerHostInfo(std::nullptr_t) {
    SetServerHostInfo(static_cast<char const*>(nullptr));
}

void SoapSocket::SetServerHostInfo(char const* host) {
    if (host) {
        m_host = host;
        return;
    }
    char name[4096];
    if (::gethostname(name, sizeof name) == -1)
        raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_HOST_NAME);
    m_host = name;
}

void SoapSocket::Open(int port) {
    if (m_open) return;
    QORSocketAddress module(kAddressModule);
    connectTo(firstAddress(module, m_host.data(), port, 0), false);
}

void SoapSocket::Open(int port, sockaddr_storage address) {
    if (m_open) return;
    setPort(address, port);
    connectTo(address, true);
}

void SoapSocket::Open() { Open(m_port, m_address); }

void SoapSocket::connectTo(sockaddr_storage const& address, bool keepOffZero) {
    requireAddress(address, "SoapSocket::Open(1)");
    SoapSocket::Close();  // what a failed Open left
    auto const makeSocket = [&] { return ::socket(address.ss_family, SOCK_STREAM, 0); };
    m_socket = makeSocket();
    if (keepOffZero && m_socket == 0) {
        m_socket = makeSocket();
        keepingErrno([] { shutDownAndClose(0); });
    }
    if (m_socket == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_OPEN);
    if (::fcntl(m_socket, F_SETFD, FD_CLOEXEC) == -1)
        raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_OPEN);
    auto const connect = [&] { return ::connect(m_socket, asSockaddr(address), kAddressLength); };
    if (uninterrupted(connect) == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_OPEN);
    sendWithoutDelay(m_socket);
    m_open = 1;
    m_ioSocket = m_socket;
}

void SoapSocket::prepare(int port, sockaddr_storage address) {
    Close();
    m_port = port;
    m_address = isNone(address) ? getMyIPAddress() : address;
}

void SoapSocket::echo(char const* path) {
    if (m_echoFile) std::fclose(m_echoFile);
    m_echoFile = path && *path ? std::fopen(path, "wbe") : nullptr;
}

int SoapSocket::SwitchToNonBlocking() {
    int on = 1;
    return ::ioctl(m_ioSocket, FIONBIO, &on);
}

sockaddr_storage SoapSocket::GetIPAddress(char* host) {
    QORSocketAddress module(kAddressModule);
    return firstAddress(module, host, 0, 0);
}

sockaddr_storage SoapSocket::getMyIPAddress() {
    char name[128] = {};
    return ::gethostname(name, sizeof name - 1) == -1 ? MaxIPAddress : GetIPAddress(name);
}

void SoapSocket::GetInternetMachineName(char* name, unsigned int length) {
    if (!name || ::gethostname(name, length) != -1) return;
    int const error = errno;
    QORByteBuffer details(256, 256);
    details << "SoapSocket::GetInternetMachineName: gethostname failed, code " << error;
    raise(__LINE__, SoapSocketException::SOAP_ERR_HOST_NAME, details.str(), error);
}

void SoapSocket::raise(int line, int id, char const* details, int systemError) {
    if (systemError != 0) errno = systemError;
    throw SoapSocketException(kSourceFile, line, id, details, systemError);
}

void SoapSocket::raiseSysError(int line, int id) {
    int const error = errno;
    saveSysError();
    raise(line, id, m_lastError.str(), error);
}

SoapServerSocket::SoapServerSocket() : m_peerAddress{}, m_boundPort(0) {}

SoapServerSocket::~SoapServerSocket() = default;

void SoapServerSocket::Open(int port) {
    QORSocketAddress module(kAddressModule);
    char everyInterface[] = "0.0.0.0";
    sockaddr_storage address = firstAddress(module, everyInterface, port, 1);
    requireAddress(address, "SoapServerSocket::Open()");
    int const raiseId = SoapSocketException::SOAP_ERR_OPEN;
    m_socket = ::socket(address.ss_family, SOCK_STREAM, 0);
    if (m_socket == -1) raiseSysError(__LINE__, raiseId);
    if (::fcntl(m_socket, F_SETFD, FD_CLOEXEC) == -1) raiseSysError(__LINE__, raiseId);
    // A server that starts again takes its port although old connections still linger there.
    int const on = 1;
    ::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(m_socket, asSockaddr(address), kAddressLength) == -1)
        raiseSysError(__LINE__, raiseId);
    m_boundPort = port;
    if (port == 0) {
        socklen_t length = kAddressLength;
        if (::getsockname(m_socket, asSockaddr(address), &length) == -1)
            raiseSysError(__LINE__, raiseId);
        m_boundPort = portOf(address);
    }
    if (::listen(m_socket, kBacklog) == -1) raiseSysError(__LINE__, raiseId);
}

int SoapServerSocket::AwaitCommunicationAttempt() {
    socklen_t length = kAddressLength;
    int const accepted =
        uninterrupted([&] { return ::accept(m_socket, asSockaddr(m_peerAddress), &length); });
    if (accepted == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_ACCEPT);
    int const kept = markCloseOnExec(accepted);
    if (kept == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_OPEN);
    sendWithoutDelay(kept);
    return kept;
}

int SoapServerSocket::AwaitCommunicationAttempt(int limit) {
    int const accepted = acceptConnection(limit);
    if (accepted == 0) raise(__LINE__, SoapSocketException::SOAP_ERR_TIMEOUT, "SOCKET_TIMEOUT", 0);
    return accepted;
}

int SoapServerSocket::acceptConnection(int limit) {
    if (limit == 0) return AwaitCommunicationAttempt();
    pollfd input{m_socket, POLLIN, 0};
    int const ready = uninterrupted([&] { return ::poll(&input, 1, limit); });
    if (ready == -1) raiseSysError(__LINE__, SoapSocketException::SOAP_ERR_ACCEPT);
    return ready == 0 ? 0 : AwaitCommunicationAttempt();
}
