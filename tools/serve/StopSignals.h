#pragma once

#include <csignal>

// SIGTERM and SIGINT as something to ask for instead of something that interrupts. To be made
// before any thread, which then inherits that they are blocked. Ignores SIGPIPE and SIGXFSZ, too:
// writing to a connection that the other side has closed, or to a file that has reached the limit
// for files, is an error then, and not the end of the process.
class StopSignals {
public:
    StopSignals();
    StopSignals(StopSignals const&) = delete;
    StopSignals& operator=(StopSignals const&) = delete;

    // Whether one has arrived. After that SIGINT, the impatient user's key, ends the process.
    bool arrived();

private:
    sigset_t m_signals;
};
