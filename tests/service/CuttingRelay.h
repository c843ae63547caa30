#pragma once

#include <atomic>
#include <cstddef>
#include <thread>

// Stands between clients and a server, one connection after the other: what a side says goes on in
// pieces, and where it has said enough, both lose their connection.
class CuttingRelay {
public:
    explicit CuttingRelay(int target);
    CuttingRelay(CuttingRelay const&) = delete;
    ~CuttingRelay();

    [[nodiscard]] int port() const { return m_port; }

    // For the connections to come. What has gone on is that of the last one.
    void cut(int side, std::size_t after) { m_most[side] = after; }
    [[nodiscard]] std::size_t passed(int side) const { return m_passed[side]; }

    static constexpr int kClient = 0;
    static constexpr int kServer = 1;

private:
    void run();
    bool handOn(int const (&sockets)[2], int side);

    int m_port = 0;
    int m_socket;
    int m_target;
    std::atomic<std::size_t> m_most[2]{{SIZE_MAX}, {SIZE_MAX}};
    std::atomic<std::size_t> m_passed[2]{{0}, {0}};
    std::thread m_thread;
};
