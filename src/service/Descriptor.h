#pragma once

#include <cstdint>
#include <utility>

#include <unistd.h>

namespace postwire {

// Owns a descriptor; -1: none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() { reset(); }

    void reset() {
        if (m_fd != -1) ::close(std::exchange(m_fd, -1));
    }
    [[nodiscard]] int release() { return std::exchange(m_fd, -1); }
    [[nodiscard]] int get() const { return m_fd; }

private:
    int m_fd;
};

// What a thread that waits for descriptors is woken by.
class WakeUp {
public:
    // Raises ServiceError::Code::system.
    WakeUp();

    // Safe in a signal handler.
    void send() const noexcept;

    // Forgets what was sent.
    void take() const noexcept;

    [[nodiscard]] int descriptor() const { return m_event.get(); }

private:
    Descriptor m_event;
};

// An epoll set; raises ServiceError::Code::system.
Descriptor makeEpoll();

// Has the set tell of changes of the descriptor, each once, with that pointer; false where the
// system has no memory for it.
[[nodiscard]] bool watch(Descriptor const& epoll, int fd, std::uint32_t events, void* what);

}  // namespace postwire
