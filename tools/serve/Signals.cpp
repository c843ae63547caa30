#include "tools/serve/Signals.h"

#include <utility>

Signals::Signals(std::map<int, std::function<void()>> calls) : m_calls(std::move(calls)) {
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    sigemptyset(&m_signals);
    for (auto const& call : m_calls) sigaddset(&m_signals, call.first);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_thread = std::thread(&Signals::wait, this);
}

Signals::~Signals() {
    m_ended = true;
    ::pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
}

void Signals::wait() {
    for (int signal = 0; sigwait(&m_signals, &signal) == 0 && !m_ended;) {
        if (signal == SIGINT || signal == SIGTERM) {
            sigdelset(&m_signals, SIGINT);
            sigset_t interrupt;
            sigemptyset(&interrupt);
            sigaddset(&interrupt, SIGINT);
            pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
        }
        m_calls.at(signal)();
    }
}
