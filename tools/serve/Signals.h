#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <map>
#include <thread>

// SIGTERM, SIGINT, SIGHUP and SIGUSR1 as calls, on a thread of their own.
class Signals {
public:
    using Calls = std::map<int, std::function<void()>>;

    // Blocks them; before any thread is made, which then inherits that. Ignores SIGPIPE and
    // SIGXFSZ, too: writing to a pipe that the other side has closed, or to a file that has reached
    // the limit for files, is an error then, and not the end of the process.
    static void block();

    // Those that came since block are called now. SIGINT ends the process once SIGINT or SIGTERM
    // has come: an impatient user's key.
    explicit Signals(Calls calls);
    Signals(Signals const&) = delete;
    Signals& operator=(Signals const&) = delete;

    // Waits for a call that is being made.
    ~Signals();

private:
    void wait();

    Calls const m_calls;
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};
