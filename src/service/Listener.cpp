#include "service/Listener.h"

#include <cerrno>
#include <cstdint>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "service/ServiceError.h"

namespace postwire {

namespace {

[[noreturn]] void raise(ServiceError::Code code, std::string const& text) {
    throw ServiceError(code, text, errno);
}

// All addresses of both kinds where the text is empty.
bool parseAddress(std::string const& text, int port, PeerAddress& address, socklen_t& size) {
    address.v6 = {};
    auto const number = htons(static_cast<std::uint16_t>(port));
    if (::inet_pton(AF_INET, text.c_str(), &address.v4.sin_addr) == 1) {
        address.v4.sin_family = AF_INET;
        address.v4.sin_port = number;
        size = sizeof address.v4;
        return true;
    }
    address.v6 = {};
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_port = number;
    size = sizeof address.v6;
    return text.empty() || ::inet_pton(AF_INET6, text.c_str(), &address.v6.sin6_addr) == 1;
}

Descriptor openSocket(int family) {
    return Descriptor(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void setOption(Descriptor const& socket, int level, int option, int value) {
    ::setsockopt(socket.get(), level, option, &value, sizeof value);
}

Descriptor listenOn(std::string const& text, int port, int backlog) {
    PeerAddress address{};
    socklen_t size = 0;
    if (port < 0 || port > 65535 || !parseAddress(text, port, address, size))
        throw ServiceError(ServiceError::Code::address, "not an address to listen on: " + text);
    Descriptor socket = openSocket(address.any.sa_family);
    if (socket.get() == -1 && text.empty() && errno == EAFNOSUPPORT) {
        parseAddress("0.0.0.0", port, address, size);  // a system without IPv6
        socket = openSocket(AF_INET);
    }
    if (socket.get() == -1) raise(ServiceError::Code::system, "can't make a socket");
    if (address.any.sa_family == AF_INET6)
        setOption(socket, IPPROTO_IPV6, IPV6_V6ONLY, text.empty() ? 0 : 1);
    setOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
    if (::bind(socket.get(), &address.any, size) != 0)
        raise(ServiceError::Code::address, "can't bind to port " + std::to_string(port));
    if (::listen(socket.get(), backlog) != 0)
        raise(ServiceError::Code::address, "can't listen on port " + std::to_string(port));
    return socket;
}

Descriptor takeOver(int descriptor) {
    Descriptor socket(descriptor);
    int const flags = ::fcntl(descriptor, F_GETFL);
    if (flags == -1 || ::fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) == -1)
        raise(ServiceError::Code::address, "can't listen on the descriptor");
    return socket;
}

}  // namespace

Listener::Listener(ServerOptions const& options)
    : m_socket(options.descriptor != -1
                   ? takeOver(options.descriptor)
                   : listenOn(options.address, options.port, options.backlog)) {}

PeerAddress Listener::address() const {
    PeerAddress address{};
    socklen_t size = sizeof address;
    if (::getsockname(m_socket.get(), &address.any, &size) != 0) address = {};
    return address;
}

int Listener::accept(PeerAddress& peer) const {
    peer.v6 = {};
    socklen_t size = sizeof peer;
    int const fd = ::accept4(m_socket.get(), &peer.any, &size, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd == -1) return -1;
    int const one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

}  // namespace postwire
