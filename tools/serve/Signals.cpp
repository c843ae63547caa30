#include "tools/serve/Signals.h"

#include <utility>

namespace {

sigset_t setOf(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (int const signal : signals) sigaddset(&set, signal);
    return set;
}

sigset_t calledSignals() { return setOf({SIGTERM, SIGINT, SIGHUP, SIGUSR1}); }

}  // namespace

void Signals::block() {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    sigset_t const set = calledSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Signals::Signals(Calls calls) : m_calls(std::move(calls)), m_thread(&Signals::wait, this) {}

Signals::~Signals() {
    m_ended = true;
    ::pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
}

void Signals::wait() {
    sigset_t waitedFor = calledSignals();
    for (int signal = 0; sigwait(&waitedFor, &signal) == 0 && !m_ended;) {
        if (signal == SIGINT || signal == SIGTERM) {
            sigdelset(&waitedFor, SIGINT);
            sigset_t const interrupt = setOf({SIGINT});
            pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
        }
        m_calls.at(signal)();
    }
}
