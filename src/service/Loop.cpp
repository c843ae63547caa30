#include "service/Loop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/ServerCore.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

using std::chrono::milliseconds;

// Pipelined requests of one connection that are answered before others have their turn.
constexpr int kMostAtOnce = 16;
// Requests that are handed over after a handler was slow.
constexpr int kCaution = 1000;
// What is taken from a client behind its last request, so that it gets its answer: closing a
// connection with input unread makes the system drop what the client has not read yet, RFC 9112
// section 9.6.
constexpr int kDiscardedBytes = 262144;
constexpr milliseconds kDiscardTime{2000};
// How long an idle connection has, when the server stops, to bring what is on its way.
constexpr milliseconds kStopGrace{250};
constexpr milliseconds kStopTick{50};
// How often peers that take their answers too slowly are looked for.
constexpr milliseconds kRateTick{1000};

// How often a driver is seen in the same handler, computing, before it is replaced.
constexpr int kTimesComputing = 10;

constexpr std::uint32_t kAllEvents = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
constexpr std::uint32_t kEnd = EPOLLRDHUP | EPOLLHUP | EPOLLERR;
constexpr std::uint32_t kInput = EPOLLIN | kEnd;

// Whether the thread runs, or would if a processor were free. Where that can't be told it counts as
// one that waits.
bool isRunnable(int thread) {
    char text[512];
    std::snprintf(text, sizeof text, "/proc/self/task/%d/stat", thread);
    Descriptor const file(::open(text, O_RDONLY | O_CLOEXEC));
    if (file.get() == -1) return false;
    ssize_t const size = ::read(file.get(), text, sizeof text);
    std::string_view const stat(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    // The state stands behind the name, which is in parentheses and may hold others.
    std::size_t const end = stat.rfind(") ");
    return end != std::string_view::npos && stat.substr(end + 2, 1) == "R";
}

}  // namespace

Loop::Loop(ServerCore& core) : m_core(core), m_epoll(makeEpoll()) {
    if (!watch(m_epoll, m_wakeUp.descriptor(), EPOLLIN | EPOLLET, nullptr))
        throw ServiceError(ServiceError::Code::system, "can't wait for an event", errno);
}

Loop::~Loop() { closeAll(); }

void Loop::adopt(Connection& connection) {
    bool first = false;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        first = m_adopted.empty();
        m_adopted.append(connection);
    }
    if (first) wake();
}

void Loop::end() {
    m_ended = true;
    wake();
}

void Loop::giveWay(int connections) {
    m_wayWanted = connections;
    wake();
}

void Loop::expectSlowHandlers() { m_slowExpected.store(kCaution, std::memory_order_relaxed); }

bool Loop::takeOver() {
    unsigned turn = m_turn.load();
    m_quiet = turn == m_lastTurn && turn % 2 == 0;
    if (turn % 2 == 0 || turn != m_lastTurn) {
        m_lastTurn = turn;
        m_timesSeen = 0;
        return false;
    }
    if (++m_timesSeen < kTimesComputing && isRunnable(m_driver)) return false;
    if (!m_turn.compare_exchange_strong(turn, turn + 1)) return false;
    expectSlowHandlers();
    return true;
}

unsigned Loop::enterHandler() {
    unsigned const turn = m_turn.load(std::memory_order_relaxed) + 1;
    m_turn.store(turn);
    m_core.rouse();
    return turn;
}

Loop::Turn Loop::leaveHandler(unsigned turn) {
    return m_turn.compare_exchange_strong(turn, turn + 1) ? Turn::kept : Turn::lost;
}

void Loop::drive() {
    m_driver = ::gettid();
    m_now = Clock::now();
    for (;;) {
        if (serveEvents() == Turn::lost || serveArrived() == Turn::lost) return;
        if (m_ended) break;
        expire();
        m_nextEvent = m_eventCount = 0;
        int const n = ::epoll_wait(m_epoll.get(), m_events.data(),
                                   static_cast<int>(m_events.size()), timeToWait());
        m_now = Clock::now();
        m_eventCount = std::max(n, 0);
    }
    closeAll();
    m_driven.store(false, std::memory_order_release);
}

Loop::Turn Loop::serveEvents() {
    while (m_nextEvent < m_eventCount) {
        epoll_event const event = m_events[static_cast<std::size_t>(m_nextEvent++)];
        if (!event.data.ptr) {
            m_wakeUp.take();
        } else if (onEvent(*static_cast<Connection*>(event.data.ptr), event.events) == Turn::lost) {
            return Turn::lost;
        }
    }
    return Turn::kept;
}

Loop::Turn Loop::serveArrived() {
    while (Connection* const connection = m_again.take()) m_arrived.append(*connection);
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        while (Connection* const connection = m_adopted.take()) m_arrived.append(*connection);
    }
    while (Connection* const arrived = m_arrived.take()) {
        Connection& connection = *arrived;
        if (!connection.watched) {
            connection.watched = connection.pending = true;
            if (!watch(m_epoll, connection.fd, kAllEvents, &connection)) connection.failed = true;
        }
        if (connection.tls && !connection.greeted && !connection.failed) {
            if (greet(connection) == Turn::lost) return Turn::lost;
        } else if (settle(connection) && converse(connection) == Turn::lost) {
            return Turn::lost;
        }
    }
    return Turn::kept;
}

// Of a connection that is away the event is only kept: whoever has it brings it back.
Loop::Turn Loop::onEvent(Connection& connection, std::uint32_t events) {
    if (events & kInput) connection.pending = true;
    if (events & kEnd) connection.hungUp = true;
    switch (connection.state) {
        case Connection::State::away:
            break;
        case Connection::State::greeting:
            return greet(connection);
        case Connection::State::writing:
            if (!(events & (EPOLLOUT | EPOLLHUP | EPOLLERR))) break;
            if (writeOn(connection) && settle(connection)) return converse(connection);
            break;
        case Connection::State::discarding:
            discard(connection);
            break;
        case Connection::State::idle:
        case Connection::State::partial:
            if (events & kInput) return converse(connection);
            break;
    }
    return Turn::kept;
}

// Where no memory is left for a connection, that one ends.
// The time for the handshake runs from its beginning. What came behind it no event will tell of.
Loop::Turn Loop::greet(Connection& connection) {
    if (!connection.shakeHands()) {
        if (connection.state != Connection::State::greeting)
            enlist(connection, Connection::State::greeting, m_core.options().headLimit);
        return Turn::kept;
    }
    if (connection.failed) {
        connection.failed = false;  // what the peer is told is not taken back by a reset
        close(connection);
        return Turn::kept;
    }
    connection.pending = true;
    return converse(connection);
}

Loop::Turn Loop::converse(Connection& connection) try {
    takeOut(connection);
    for (int i = 0; i < kMostAtOnce; ++i) {
        if (!m_exchange) m_exchange = m_core.takeExchange();
        RequestReader::Outcome outcome{};
        if (serve(connection, outcome) == Turn::lost) return Turn::lost;
        if (outcome == RequestReader::Outcome::closed)
            close(connection);
        else if (outcome == RequestReader::Outcome::notHere)
            waitForRest(connection);
        else if (m_exchange && settle(connection))
            continue;  // else it was handed over, or waits for something else
        return Turn::kept;
    }
    m_again.append(connection);
    return Turn::kept;
} catch (std::bad_alloc const&) {
    close(connection);
    return Turn::kept;
}

// Reads a request, and answers it unless another thread is to. A driver that has lost its turn
// finds that out when the program's code returns: it finishes this exchange, of which no one else
// knows, and touches nothing else.
Loop::Turn Loop::serve(Connection& connection, RequestReader::Outcome& outcome) {
    using Outcome = RequestReader::Outcome;
    ServerCore& core = m_core;
    std::unique_ptr<Exchange> exchange = std::move(m_exchange);
    bool const isCautious = m_slowExpected.load(std::memory_order_relaxed) > 0;
    bool const runsHandlers = !isCautious && core.crew().hasRoom();
    bool const asks = runsHandlers && core.options().chooseBody;
    if (!asks) outcome = exchange->read(connection, nullptr, false);
    if (asks || (runsHandlers && outcome == Outcome::whole)) {
        unsigned const turn = enterHandler();
        if (asks) outcome = exchange->read(connection, nullptr, true);
        if (outcome == Outcome::whole) {
            exchange->run(core.handler(), core.isStopping());
            outcome = Outcome::answered;
        }
        if (leaveHandler(turn) == Turn::lost) {
            core.conclude(std::move(exchange), outcome);
            return Turn::lost;
        }
    }
    if (outcome == Outcome::whole || outcome == Outcome::headHere) {
        if (isCautious) m_slowExpected.fetch_sub(1, std::memory_order_relaxed);
        exchange->hasToChoose = outcome == Outcome::headHere;
        core.answerElsewhere(std::move(exchange));
        return Turn::kept;
    }
    if (outcome == Outcome::refused) exchange->refuse(exchange->reader.refusal());
    if (outcome == Outcome::failed) exchange->refuse(500, "the request could not be read");
    m_exchange = std::move(exchange);
    return Turn::kept;
}

// Where a connection goes after what was done for it; true when its next request may be here.
bool Loop::settle(Connection& connection) {
    // Tried first: while it was away, the event that there is room again may have come and gone.
    bool const written = writeOn(connection);
    connection.pending = connection.pending || connection.holdsInput();
    if (written) {
        if (connection.report) m_core.report(connection);
        connection.sent = 0;
        m_core.budget().giveBack(std::exchange(connection.budgeted, 0));
    }
    if (connection.failed || (connection.ended && connection.closing && written)) {
        close(connection);
    } else if (!written) {
        connection.beginWait(m_now);
        enlist(connection, Connection::State::writing,
               connection.waitsSince + m_core.options().answerLimit - m_now);
    } else if (connection.closing) {
        startDiscarding(connection);
    } else if (connection.pending || connection.ended || !connection.input.empty()) {
        return true;
    } else {
        enlist(connection, Connection::State::idle, m_core.options().idleLimit);
    }
    return false;
}

// A request often comes in two pieces, head and body: it is read anew when the second one is here.
// What takes longer, or is larger than what is kept here, waits elsewhere.
void Loop::waitForRest(Connection& connection) {
    if (connection.input.empty())
        return enlist(connection, Connection::State::idle, m_core.options().idleLimit);
    if (connection.attempts++ == 0) {
        connection.began = m_now;
        if (!connection.pending)
            return enlist(connection, Connection::State::partial, m_core.options().headLimit);
    }
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, connection.fd, nullptr);
    connection.watched = false;
    m_core.readElsewhere(connection);
}

// True when nothing is left to write, be it because the peer has gone.
bool Loop::writeOn(Connection& connection) try {
    std::string& output = connection.output;
    while (connection.sent < output.size()) {
        std::size_t const taken =
            connection.transmit(output.data() + connection.sent, output.size() - connection.sent);
        if (taken == 0) return false;
        connection.sent += taken;
        connection.taken += static_cast<long long>(taken);
    }
    std::string().swap(output);
    return connection.flush();
} catch (std::exception const&) {
    return true;  // settled as failed: it is a ServiceError, or there was no memory for one
}

void Loop::startDiscarding(Connection& connection) {
    connection.endOutput();
    connection.input.clear();
    enlist(connection, Connection::State::discarding, kDiscardTime);
    discard(connection);
}

void Loop::discard(Connection& connection) {
    char block[4096];
    for (int n; (n = connection.receive(block, sizeof block)) != -1;) {
        connection.discarded += n;
        if (n == 0 || connection.discarded > kDiscardedBytes) return close(connection);
    }
}

void Loop::expire() {
    while (!m_greeting.empty() && m_greeting.front()->deadline <= m_now) close(*m_greeting.front());
    while (!m_partial.empty() && m_partial.front()->deadline <= m_now)
        refuseLate(*m_partial.front());
    while (!m_writing.empty() && m_writing.front()->deadline <= m_now) {
        m_writing.front()->failed = true;
        close(*m_writing.front());
    }
    while (!m_discarding.empty() && m_discarding.front()->deadline <= m_now)
        close(*m_discarding.front());
    if (m_now - m_ratesSeen >= kRateTick) cutOffSlow();
    for (int left = m_wayWanted.exchange(0); left > 0 && !m_idle.empty(); --left)
        close(*m_idle.front());
    bool const stops = m_core.isStopping() && m_now >= m_core.stoppedAt() + kStopGrace;
    while (!m_greeting.empty() && stops) close(*m_greeting.front());
    while (!m_idle.empty() && (stops || m_idle.front()->deadline <= m_now)) close(*m_idle.front());
}

// Who takes fewer bytes than the lowest rate.
void Loop::cutOffSlow() {
    m_ratesSeen = m_now;
    for (Connection* next = m_writing.front(); next != nullptr;) {
        Connection& connection = *std::exchange(next, next->next);
        Clock::duration const waits = m_now - connection.waitsSince;
        if (!isTooSlow(m_core.options(), waits, connection.takenWithin())) continue;
        connection.failed = true;
        close(connection);
    }
}

void Loop::refuseLate(Connection& connection) try {
    takeOut(connection);
    if (!m_exchange) m_exchange = m_core.takeExchange();
    m_exchange->connection = &connection;
    m_exchange->refuse(408, "the request took too long");
    settle(connection);
} catch (std::bad_alloc const&) {
    close(connection);
}

int Loop::timeToWait() const {
    if (!m_again.empty()) return 0;
    Clock::time_point next = Clock::time_point::max();
    for (ConnectionList const* const list :
         {&m_greeting, &m_idle, &m_partial, &m_writing, &m_discarding})
        if (!list->empty()) next = std::min(next, list->front()->deadline);
    if (!m_writing.empty()) next = std::min<Clock::time_point>(next, m_now + kRateTick);
    if (m_core.isStopping()) next = std::min(next, m_now + kStopTick);
    if (next == Clock::time_point::max()) return -1;
    auto const left = std::chrono::ceil<milliseconds>(next - m_now).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

void Loop::enlist(Connection& connection, Connection::State state, Clock::duration limit) {
    takeOut(connection);
    connection.state = state;
    if (state == Connection::State::idle) m_core.countIdle(1);
    connection.deadline = m_now + limit;
    listOf(state).insert(connection);
}

void Loop::takeOut(Connection& connection) {
    if (connection.state == Connection::State::away) return;
    listOf(connection.state).remove(connection);
    if (connection.state == Connection::State::idle) m_core.countIdle(-1);
    connection.state = Connection::State::away;
}

ConnectionList& Loop::listOf(Connection::State state) {
    switch (state) {
        case Connection::State::greeting:
            return m_greeting;
        case Connection::State::partial:
            return m_partial;
        case Connection::State::writing:
            return m_writing;
        case Connection::State::discarding:
            return m_discarding;
        default:
            return m_idle;
    }
}

void Loop::close(Connection& connection) {
    takeOut(connection);
    m_core.endConnection(std::unique_ptr<Connection>(&connection));
}

void Loop::closeAll() {
    for (ConnectionList* const list : {&m_greeting, &m_idle, &m_partial, &m_writing, &m_discarding})
        while (!list->empty()) close(*list->front());
    std::lock_guard<std::mutex> const lock(m_mutex);
    for (ConnectionList* const list : {&m_arrived, &m_again, &m_adopted})
        while (Connection* const connection = list->take()) close(*connection);
}

}  // namespace postwire
