#include "service/HttpPeer.h"

#include <cstdlib>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int patientSocket(int family) {
    int const socket = ::socket(family, SOCK_STREAM, 0);
    timeval const limit{20, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return socket;
}

}  // namespace

HttpPeer::HttpPeer() : m_socket(patientSocket(AF_INET)) {}

HttpPeer::HttpPeer(int port, int receiveBuffer) : HttpPeer() {
    if (receiveBuffer > 0)
        ::setsockopt(m_socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    connect(port);
}

HttpPeer::HttpPeer(std::string const& address, int port) : m_socket(patientSocket(AF_INET6)) {
    sockaddr_in6 peer{};
    peer.sin6_family = AF_INET6;
    peer.sin6_port = htons(static_cast<std::uint16_t>(port));
    EXPECT_EQ(1, ::inet_pton(AF_INET6, address.c_str(), &peer.sin6_addr));
    ::connect(m_socket, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
}

void HttpPeer::connect(int port) const {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(0, ::connect(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address));
}

HttpPeer::~HttpPeer() { ::close(m_socket); }

void HttpPeer::send(std::string_view bytes) const {
    while (!bytes.empty()) {
        ssize_t const n = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n <= 0) return;  // refused: the answer tells why
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
}

void HttpPeer::finish() const { ::shutdown(m_socket, SHUT_WR); }

void HttpPeer::reset() {
    linger const atOnce{1, 0};
    ::setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    ::close(std::exchange(m_socket, ::socket(AF_INET, SOCK_STREAM, 0)));
}

bool HttpPeer::more() {
    char block[65536];
    ssize_t const n = ::recv(m_socket, block, sizeof block, 0);
    if (n > 0) m_got.append(block, static_cast<std::size_t>(n));
    return n > 0;
}

HttpPeer::Answer HttpPeer::receive() {
    std::size_t end = 0;
    while ((end = m_got.find("\r\n\r\n")) == std::string::npos)
        if (!more()) return {};
    Answer answer;
    answer.head = m_got.substr(0, end + 2);
    m_got.erase(0, end + 4);
    int const status = std::atoi(answer.head.c_str() + sizeof "HTTP/1.1");
    std::size_t const at = answer.head.find("\r\nContent-Length: ");
    std::size_t const length =
        at == std::string::npos ? 0 : std::strtoul(answer.head.c_str() + at + 18, nullptr, 10);
    while (m_got.size() < length)
        if (!more()) return {};
    answer.body = m_got.substr(0, length);
    m_got.erase(0, length);
    answer.status = status;
    return answer;
}

std::string HttpPeer::rest(std::size_t size) {
    while (m_got.size() < size && more()) {
    }
    std::string bytes = m_got.substr(0, size);
    m_got.erase(0, size);
    return bytes;
}

bool HttpPeer::isClosed() {
    char byte = 0;
    return m_got.empty() && ::recv(m_socket, &byte, 1, 0) == 0;
}

bool HttpPeer::isCutOff(std::size_t takes, int times) const {
    pollfd reset{m_socket, 0, 0};
    std::string bytes(takes, ' ');
    for (int i = 0; i < 150; ++i) {
        if (::poll(&reset, 1, 200) == 1) return true;
        if (takes > 0 && i < times) ::recv(m_socket, bytes.data(), takes, MSG_WAITALL);
    }
    return false;
}

int listenOnLoopback(int& port, int backlog) {
    int const listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ::bind(listener, any, size);
    ::listen(listener, backlog);
    ::getsockname(listener, any, &size);
    port = ntohs(address.sin_port);
    return listener;
}

std::string post(std::string_view uri, std::string_view body, std::string_view lines) {
    std::string text = "POST " + std::string(uri) + " HTTP/1.1\r\nHost: a\r\n" + std::string(lines);
    text += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n";
    return text.append(body);
}
