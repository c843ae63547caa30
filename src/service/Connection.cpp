#include "service/Connection.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/uio.h>
#include <unistd.h>

#include "foundation/GuardedAllocation.h"
#include "service/ServiceError.h"

namespace postwire {

std::string PeerAddress::host() const {
    char text[INET6_ADDRSTRLEN] = "";
    if (any.sa_family == AF_INET) ::inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    // A client of IPv4 on a socket of both kinds.
    if (any.sa_family == AF_INET6 && IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr))
        ::inet_ntop(AF_INET, &v6.sin6_addr.s6_addr[12], text, sizeof text);
    else if (any.sa_family == AF_INET6)
        ::inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
    return text;
}

int PeerAddress::port() const {
    if (any.sa_family == AF_INET) return ntohs(v4.sin_port);
    return any.sa_family == AF_INET6 ? ntohs(v6.sin6_port) : 0;
}

// An address of IPv4 as those of IPv6 map it.
PeerAddress::Key PeerAddress::key() const noexcept {
    Key key{};
    if (any.sa_family == AF_INET6) std::memcpy(key.data(), &v6.sin6_addr, sizeof v6.sin6_addr);
    if (any.sa_family == AF_INET) {
        key[10] = key[11] = 0xFF;
        std::memcpy(&key[12], &v4.sin_addr, sizeof v4.sin_addr);
    }
    return key;
}

// What a peer that was given up has not taken goes with it, instead of staying in the system.
Connection::~Connection() {
    linger const atOnce{1, 0};
    if (tls && !failed) tls->close();
    if (failed) ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    ::close(fd);
}

int Connection::receive(char* bytes, std::size_t size) noexcept {
    if (tls) return receiveTls(bytes, size);
    for (;;) {
        ssize_t const n = ::recv(fd, bytes, std::min<std::size_t>(size, INT_MAX), MSG_DONTWAIT);
        if (n > 0 && trace) trace->received(bytes, static_cast<std::size_t>(n));
        if (n > 0) return static_cast<int>(n);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN)) return -1;
        ended = true;
        failed = failed || n < 0;
        return 0;
    }
}

std::size_t Connection::transmit(char const* first, std::size_t firstSize, char const* second,
                                 std::size_t secondSize) {
    if (tls) return transmitTls(first, firstSize, second, secondSize);
    iovec pieces[2] = {{const_cast<char*>(first), firstSize},
                       {const_cast<char*>(second), secondSize}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = secondSize > 0 ? 2 : 1;
    for (;;) {
        ssize_t const n = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0 && trace) {
            std::size_t const ofFirst = std::min(firstSize, static_cast<std::size_t>(n));
            trace->sent(first, ofFirst, second, static_cast<std::size_t>(n) - ofFirst);
        }
        if (n >= 0) return static_cast<std::size_t>(n);
        if (errno == EINTR) continue;
        if (errno == EAGAIN) return 0;
        failed = true;
        throw ServiceError(ServiceError::Code::peerGone, "can't send", errno);
    }
}

// As much as there is and fits: what is left within TLS no event would tell of. One who closes
// without saying so, as many clients do between two requests, has only ended.
int Connection::receiveTls(char* bytes, std::size_t size) noexcept {
    std::size_t got = 0;
    runQuietly([&] {
        try {
            while (got < size && !ended) {
                int const n = tls->read(bytes + got, size - got);
                if (n == -1) break;
                ended = n == 0;
                got += static_cast<std::size_t>(n);
            }
        } catch (TlsFailure const& e) {
            ended = true;
            failed = failed || !e.isEnd;
        }
    });
    if (got > 0 && trace) trace->received(bytes, got);
    if (got > 0) return static_cast<int>(got);
    return ended ? 0 : -1;
}

std::size_t Connection::transmitTls(char const* first, std::size_t firstSize, char const* second,
                                    std::size_t secondSize) try {
    std::size_t const ofFirst = tls->write(first, firstSize);
    std::size_t const ofSecond = ofFirst == firstSize ? tls->write(second, secondSize) : 0;
    if (trace && ofFirst + ofSecond > 0) trace->sent(first, ofFirst, second, ofSecond);
    return ofFirst + ofSecond;
} catch (TlsFailure const& e) {
    failed = true;
    throw ServiceError(ServiceError::Code::peerGone, "can't send", e.systemError);
}

bool Connection::flush() noexcept {
    bool flushed = true;
    runQuietly([&] {
        try {
            flushed = !tls || tls->flush();
        } catch (TlsFailure const&) {
            failed = true;
        }
    });
    return flushed;
}

bool Connection::shakeHands() noexcept {
    failed = true;
    runQuietly([&] {
        try {
            greeted = tls->shakeHands();
            failed = false;
        } catch (TlsFailure const&) {
            // The peer has been told by an alert.
        }
    });
    return greeted || failed;
}

void Connection::endOutput() noexcept {
    if (tls) tls->close();
    ::shutdown(fd, SHUT_WR);
}

bool Connection::await(short events, Clock::time_point until) const noexcept {
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0) return false;
        pollfd wanted{fd, events, 0};
        auto const limit = std::min<long long>(left.count(), INT_MAX);
        if (::poll(&wanted, 1, static_cast<int>(limit)) > 0) return true;
    }
}

void Connection::beginWait(Clock::time_point now) noexcept {
    if (waitsSince != Clock::time_point()) return;
    waitsSince = now;
    takenBefore = taken;
}

bool Connection::isHalfClosed() const noexcept {
    pollfd wanted{fd, POLLRDHUP, 0};
    return ended || ::poll(&wanted, 1, 0) > 0;
}

void ConnectionList::append(Connection& connection) { putBehind(m_last, connection); }

void ConnectionList::insert(Connection& connection) {
    Connection* place = m_last;
    while (place && place->deadline > connection.deadline) place = place->previous;
    putBehind(place, connection);
}

// At the beginning where there is no place.
void ConnectionList::putBehind(Connection* place, Connection& connection) {
    connection.previous = place;
    connection.next = place ? place->next : m_first;
    (place ? place->next : m_first) = &connection;
    (connection.next ? connection.next->previous : m_last) = &connection;
}

void ConnectionList::remove(Connection& connection) {
    (connection.previous ? connection.previous->next : m_first) = connection.next;
    (connection.next ? connection.next->previous : m_last) = connection.previous;
    connection.previous = connection.next = nullptr;
}

Connection* ConnectionList::take() {
    Connection* const first = m_first;
    if (first) remove(*first);
    return first;
}

}  // namespace postwire
