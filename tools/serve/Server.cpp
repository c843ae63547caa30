#include "tools/serve/Server.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "foundation/QORThrowable.h"

#include "tools/common/TextEscapes.h"
#include "tools/serve/ServedConnection.h"
#include "tools/serve/StopSignals.h"

namespace {

using std::chrono::milliseconds;

// How long an accept waits before it looks for a signal.
constexpr milliseconds kAcceptWait{100};
// For what a worker does between its last look at the clock and its end.
constexpr milliseconds kStopMargin{500};
constexpr std::size_t kQueueCapacity = 64;

}  // namespace

Server::Server(ServerOptions const& options)
    : m_options(options),
      m_queue(kQueueCapacity, static_cast<std::size_t>(options.workers)),
      m_stopBy(Deadline::Clock::time_point::max()) {
    if (!options.saveDirectory.empty())
        m_partFiles = std::make_unique<PartFiles>(options.saveDirectory);
    if (!options.traceDirectory.empty())
        std::filesystem::create_directories(options.traceDirectory);
    m_listener.Open(options.port);
}

Server::~Server() {
    m_queue.close();
    for (std::thread& worker : m_workers) worker.join();
}

void Server::start() {
    for (m_runningWorkers = 0; m_runningWorkers < m_options.workers; ++m_runningWorkers)
        m_workers.emplace_back(&Server::work, this);
}

bool Server::run(StopSignals& signals) {
    accept(signals);
    auto const stopBy = Deadline::Clock::now() + m_options.requestTimeout;
    m_stopBy = stopBy;
    m_listener.Close();
    m_queue.close();
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_workerEnded.wait_until(lock, stopBy + kStopMargin,
                                    [this] { return m_runningWorkers == 0; });
}

void Server::accept(StopSignals& signals) {
    int descriptor = 0;
    while (!signals.arrived()) {
        if (descriptor == 0) descriptor = acceptOne();
        if (descriptor != 0 && m_queue.offer(descriptor, kAcceptWait)) descriptor = 0;
    }
    if (descriptor != 0) ::close(descriptor);
}

// 0 when there was none. A failed accept is that of one connection, or passes when others end: the
// server goes on, but does not spin.
int Server::acceptOne() try {
    return m_listener.acceptConnection(static_cast<int>(kAcceptWait.count()));
} catch (SoapSocketException& e) {
    complain(std::string("can't accept: ") + e.getDetails());
    ::poll(nullptr, 0, static_cast<int>(kAcceptWait.count()));
    return 0;
}

void Server::work() {
    for (int descriptor; (descriptor = m_queue.take()) != -1;) {
        serve(descriptor);
        m_queue.done();
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    --m_runningWorkers;
    m_workerEnded.notify_all();
}

// What a connection raises ends that connection and nothing else.
void Server::serve(int descriptor) try {
    ServedConnection(*this, descriptor).run();
} catch (SoapSocketException&) {
    // The client is gone.
} catch (TimeLimitPassed&) {
    // It was idle for too long, or did not take its answer.
} catch (QORThrowable& e) {
    complain(e.toString());
} catch (std::exception& e) {
    complain(e.what());
}

int Server::makeTraceFile() {
    for (;;) {
        char name[32];
        std::snprintf(name, sizeof name, "/connection-%06d.trace", ++m_traces);
        std::string path = m_options.traceDirectory + name;
        int const flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        int const descriptor = ::open(path.c_str(), flags, 0600);
        if (descriptor == -1 && errno == EEXIST) continue;
        if (descriptor == -1) throw std::system_error(errno, std::generic_category(), path);
        return descriptor;
    }
}

void Server::complain(std::string const& text) {
    std::fprintf(stderr, "postwire-serve: %s", printableLines(text).c_str());
}
