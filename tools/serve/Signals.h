#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <map>
#include <thread>

// Signals as calls, on a thread of their own. To be made before any other thread, which then
// inherits that they are blocked. Ignores SIGPIPE and SIGXFSZ, too: writing to a pipe that the
// other side has closed, or to a file that has reached the limit for files, is an error then, and
// not the end of the process.
class Signals {
public:
    // SIGINT ends the process once SIGINT or SIGTERM has come: an impatient user's key.
    explicit Signals(std::map<int, std::function<void()>> calls);
    Signals(Signals const&) = delete;
    Signals& operator=(Signals const&) = delete;

    // Waits for a call that is being made.
    ~Signals();

private:
    void wait();

    std::map<int, std::function<void()>> const m_calls;
    sigset_t m_signals;
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};
