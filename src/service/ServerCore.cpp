#include "service/ServerCore.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include "foundation/GuardedAllocation.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

using std::chrono::milliseconds;

// How often loops are looked at while they run handlers, and so about half of the longest time that
// a handler holds up others.
constexpr milliseconds kTick{1};
// A handler that takes longer is not quick: it costs more than its hand-over.
constexpr milliseconds kQuick{1};
constexpr milliseconds kEpisodeEnd{10000};
// Whether nothing of the kind has happened for a while.
bool isNewEpisode(Clock::time_point& last) {
    Clock::time_point const now = Clock::now();
    Clock::time_point const before = std::exchange(last, now);
    return before == Clock::time_point() || now - before > kEpisodeEnd;
}

constexpr int kGivingWay = 8;      // connections of each loop
constexpr int kMostAccepted = 64;  // before the loops are looked at
// Kept for the next burst.
constexpr std::size_t kMostExchanges = 64;
// Connections beyond the limit that are told so; more are closed at once.
constexpr int kMostTurnedAway = 1000;

// What a thread has used so far.
class ThreadUse {
public:
    ThreadUse() { ::getrusage(RUSAGE_THREAD, &m_use); }

    // Whether it has waited for something since then, or computed for long.
    [[nodiscard]] bool isSlowSince(ThreadUse const& before) const {
        return m_use.ru_nvcsw != before.m_use.ru_nvcsw || computed() - before.computed() > kQuick;
    }

private:
    [[nodiscard]] std::chrono::microseconds computed() const {
        return std::chrono::seconds(m_use.ru_utime.tv_sec + m_use.ru_stime.tv_sec) +
               std::chrono::microseconds(m_use.ru_utime.tv_usec + m_use.ru_stime.tv_usec);
    }

    rusage m_use{};
};

int processors() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (::sched_getaffinity(0, sizeof set, &set) == 0) return CPU_COUNT(&set);
    return static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
}

ServerOptions checked(ServerOptions options) {
    bool const good = options.loops >= 0 && options.handlers > 0 && options.maxConnections > 0 &&
                      options.maxConnectionsOfAddress >= 0;
    if (!good) throw ServiceError(ServiceError::Code::usage, "an option is out of range");
    if (options.loops == 0) options.loops = processors();
    return options;
}

}  // namespace

ServerCore::ServerCore(ServerOptions const& options)
    : m_options(checked(options)),
      m_listener(m_options),
      m_address(m_listener.address()),
      m_budget(m_options.bodyBudget),
      m_crew(m_options.loops, 3 * m_options.loops, m_options.handlers + 3 * m_options.loops,
             [this](std::unique_ptr<Exchange> exchange) { answer(std::move(exchange)); }) {}

ServerCore::~ServerCore() = default;

void ServerCore::stop() noexcept {
    m_stopWanted = true;
    m_wakeUp.send();
}

ServerLoad ServerCore::load() const noexcept {
    return {m_connections, m_idle, m_options.bodyBudget - m_budget.left()};
}

void ServerCore::run(Exchange::Handler handler) {
    if (m_handler) throw ServiceError(ServiceError::Code::usage, "a server runs once");
    m_handler = std::move(handler);
    begin();
    while (!m_stopWanted) {
        wait();
        lookAfterLoops();
        acceptAll();
    }
    beginToStop();
    auto const until = m_stoppedAt + m_options.requestLimit + m_options.answerLimit;
    while (m_connections > 0 && Clock::now() < until) {
        wait();
        lookAfterLoops();
    }
    endLoops();
}

void ServerCore::begin() {
    startLoops();
    if (!m_options.ready) return;
    try {
        m_options.ready();
    } catch (std::exception const&) {
        endLoops();
        throw;
    }
}

// With fewer loops where the system has no thread for another one.
void ServerCore::startLoops() {
    try {
        for (int i = 0; i < m_options.loops; ++i) {
            auto loop = std::make_unique<Loop>(*this);
            auto lane = std::make_unique<ReadLane>(*this);
            if (!m_crew.startOne()) break;
            m_loops.push_back(std::move(loop));
            m_lanes.push_back(std::move(lane));
        }
    } catch (std::system_error const&) {
        // No thread for a lane.
    }
    if (m_loops.empty()) throw ServiceError(ServiceError::Code::system, "can't start a thread");
    for (auto const& loop : m_loops) m_crew.drive(*loop);
}

// Each loop ends by its own driver, which may first have to be found.
void ServerCore::endLoops() {
    for (auto const& lane : m_lanes) lane->end();
    for (auto const& loop : m_loops) loop->end();
    while (std::any_of(m_loops.begin(), m_loops.end(),
                       [](auto const& loop) { return loop->isDriven(); })) {
        wait();
        lookAfterLoops();
    }
    m_crew.end();
}

// Until there is something to accept or to look after. Whoever begins something while this thread
// sleeps rouses it: both sides write, then look, so that one of them sees the other.
void ServerCore::wait() {
    m_asleep = true;
    if (m_crew.isBehind()) m_asleep = false;
    for (auto const& loop : m_loops)
        if (!loop->isQuiet()) m_asleep = false;
    pollfd wanted[2] = {{m_wakeUp.descriptor(), POLLIN, 0}, {m_listener.descriptor(), POLLIN, 0}};
    bool const forEver = m_asleep && !m_acceptsAgainLater && !isStopping();
    ::poll(wanted, m_acceptsAgainLater ? 1 : 2, forEver ? -1 : static_cast<int>(kTick.count()));
    m_asleep = false;
    if (wanted[0].revents != 0) m_wakeUp.take();
}

void ServerCore::lookAfterLoops() {
    for (auto const& loop : m_loops)
        if (loop->takeOver()) m_crew.drive(*loop);
    m_crew.grow();
}

void ServerCore::acceptAll() {
    m_acceptsAgainLater = false;
    for (int i = 0; i < kMostAccepted && acceptOne(); ++i) {
    }
}

// False when there was none, or no room for it.
bool ServerCore::acceptOne() try {
    PeerAddress peer;
    Descriptor socket(m_listener.accept(peer));
    if (socket.get() == -1) {
        bool const none = errno == EAGAIN;
        bool const lacks =
            errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        m_acceptsAgainLater = lacks;
        if (lacks) lack(errno);
        for (auto const& loop : m_loops)
            if (lacks) loop->giveWay(kGivingWay);
        return !none && !lacks;  // else it was the fault of that one connection
    }
    Loop& loop = *m_loops[m_nextLoop++ % m_loops.size()];
    auto connection = std::make_unique<Connection>(std::move(socket), peer, loop);
    if (m_options.tls) connection->tls = m_options.tls->accept(connection->fd);
    if (!m_options.traceFolder.empty()) beginToTrace(*connection);
    if (admit(*connection))
        loop.adopt(*connection.release());
    else
        turnAway(std::move(connection));
    return true;
} catch (std::bad_alloc const&) {
    lack(ENOMEM);
    return true;
}

// An episode is over when nothing was lacking for a while.
void ServerCore::lack(int error) noexcept {
    if (!isNewEpisode(m_lackedAt)) return;
    runQuietly([&] { complain("can't accept: " + std::generic_category().message(error)); });
}

void ServerCore::beginToTrace(Connection& connection) try {
    connection.trace = std::make_unique<WireTrace>(
        beginTrace(m_options.traceFolder, "connection", m_traces, connection.tls != nullptr));
} catch (ServiceError const& e) {
    traceFailed(e.systemError());
}

void ServerCore::traceFailed(int error) noexcept {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (!isNewEpisode(m_untracedAt)) return;
    }
    runQuietly([&] {
        complain("a trace in " + m_options.traceFolder +
                 " could not be written: " + std::generic_category().message(error));
    });
}

void ServerCore::complain(std::string const& text) const {
    if (m_options.complain)
        m_options.complain(text);
    else
        std::fprintf(stderr, "postwire: %s\n", text.c_str());
}

bool ServerCore::admit(Connection const& connection) {
    bool room = true;
    if (m_options.maxConnectionsOfAddress > 0) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        room = ++m_ofAddress[connection.peer.key()] <= m_options.maxConnectionsOfAddress;
    }
    return m_connections.fetch_add(1) < m_options.maxConnections && room;
}

void ServerCore::turnAway(std::unique_ptr<Connection> connection) noexcept {
    std::unique_ptr<Exchange> exchange;
    // Within TLS nothing can be said before the handshake.
    if (!connection->tls && m_connections <= m_options.maxConnections + kMostTurnedAway)
        runQuietly([&] { exchange = takeExchange(); });
    if (!exchange) {
        connection->failed = true;
        return endConnection(std::move(connection));
    }
    exchange->connection = connection.get();
    exchange->refuse(503, "the server has too many connections");
    giveBack(std::move(exchange));
    connection->home.adopt(*connection.release());
}

void ServerCore::report(Connection& connection) noexcept {
    std::unique_ptr<ExchangeReport> const report = std::move(connection.report);
    report->bytesOut = connection.taken;
    report->answer = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() -
                                                                           connection.answerBegan);
    runQuietly([&] {
        if (connection.failed && report->text.empty())
            report->text = "the peer did not take its answer";
        m_options.observe(*report);
    });
}

void ServerCore::endConnection(std::unique_ptr<Connection> connection) noexcept {
    if (connection->report) report(*connection);
    if (connection->trace && connection->trace->error() != 0)
        traceFailed(connection->trace->error());
    m_budget.giveBack(connection->budgeted);
    if (m_options.maxConnectionsOfAddress > 0) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const found = m_ofAddress.find(connection->peer.key());
        if (--found->second == 0) m_ofAddress.erase(found);
    }
    connection.reset();
    if (m_connections.fetch_sub(1) == 1 && isStopping()) m_wakeUp.send();
}

// What waits to be accepted has arrived, too.
void ServerCore::beginToStop() {
    while (acceptOne()) {
    }
    m_listener.close();
    m_stoppedAt = Clock::now();
    m_stopping.store(true, std::memory_order_release);
    for (auto const& loop : m_loops) loop->wake();
}

std::unique_ptr<Exchange> ServerCore::takeExchange() {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (!m_exchanges.empty()) {
            std::unique_ptr<Exchange> exchange = std::move(m_exchanges.back());
            m_exchanges.pop_back();
            return exchange;
        }
        m_exchanges.reserve(kMostExchanges);
    }
    return std::make_unique<Exchange>(m_options, m_budget);
}

void ServerCore::giveBack(std::unique_ptr<Exchange> exchange) {
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_exchanges.size() < kMostExchanges) m_exchanges.push_back(std::move(exchange));
}

void ServerCore::answerElsewhere(std::unique_ptr<Exchange> exchange) noexcept {
    Connection& connection = *exchange->connection;
    bool waits = false;
    runQuietly([&] {
        m_crew.answer(std::move(exchange));
        waits = true;
    });
    if (waits) return rouse();
    connection.failed = true;
    connection.home.adopt(connection);
}

void ServerCore::readElsewhere(Connection& connection) {
    for (std::size_t i = 0; i < m_loops.size(); ++i)
        if (m_loops[i].get() == &connection.home) m_lanes[i]->read(connection);
}

void ServerCore::answer(std::unique_ptr<Exchange> exchange) noexcept {
    using Outcome = RequestReader::Outcome;
    Loop& home = exchange->connection->home;
    Outcome const outcome = exchange->hasToChoose ? exchange->readAsChosen() : Outcome::whole;
    ThreadUse const use;
    Clock::time_point const begin = Clock::now();
    conclude(std::move(exchange), outcome);
    // One that only had to share its processor was not slow.
    if (Clock::now() - begin > kQuick && ThreadUse().isSlowSince(use)) home.expectSlowHandlers();
}

void ServerCore::conclude(std::unique_ptr<Exchange> exchange,
                          RequestReader::Outcome outcome) noexcept {
    using Outcome = RequestReader::Outcome;
    Connection& connection = *exchange->connection;
    exchange->hasToChoose = outcome == Outcome::headHere;
    if (exchange->hasToChoose) return answerElsewhere(std::move(exchange));
    if (outcome == Outcome::whole)
        exchange->run(m_handler, isStopping());
    else if (outcome == Outcome::refused)
        exchange->refuse(exchange->reader.refusal());
    else if (outcome == Outcome::failed)
        exchange->refuse(500, "the request could not be read");
    else if (outcome == Outcome::closed)
        connection.failed = true;
    giveBack(std::move(exchange));
    connection.home.adopt(connection);
}

}  // namespace postwire
