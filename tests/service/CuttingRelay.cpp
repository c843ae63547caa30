#include "service/CuttingRelay.h"

#include <algorithm>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/HttpPeer.h"

CuttingRelay::CuttingRelay(int target) : m_socket(listenOnLoopback(m_port)), m_target(target) {
    m_thread = std::thread([this] { run(); });
}

CuttingRelay::~CuttingRelay() {
    ::shutdown(m_socket, SHUT_RDWR);
    m_thread.join();
    ::close(m_socket);
}

void CuttingRelay::run() {
    for (int client = 0; (client = ::accept(m_socket, nullptr, nullptr)) != -1; ::close(client)) {
        HttpPeer const server(m_target);
        int const sockets[] = {client, server.socket()};
        for (std::atomic<std::size_t>& passed : m_passed) passed = 0;
        pollfd input[] = {{sockets[0], POLLIN, 0}, {sockets[1], POLLIN, 0}};
        for (bool open = true; open && ::poll(input, 2, -1) > 0;)
            for (int side = 0; side < 2; ++side)
                if (input[side].revents != 0) open = open && handOn(sockets, side);
    }
}

bool CuttingRelay::handOn(int const (&sockets)[2], int side) {
    char piece[256];
    std::size_t const left = m_most[side] - m_passed[side];
    ssize_t const n = ::recv(sockets[side], piece, std::min(left, sizeof piece), 0);
    if (n <= 0 || ::send(sockets[1 - side], piece, static_cast<std::size_t>(n), MSG_NOSIGNAL) != n)
        return false;
    m_passed[side] += static_cast<std::size_t>(n);
    return m_passed[side] < m_most[side];
}
