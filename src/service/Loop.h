#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include <sys/epoll.h>

#include "service/Connection.h"
#include "service/Descriptor.h"
#include "service/Exchange.h"

namespace postwire {

class ServerCore;

// Waits for many connections at once, on one thread: reads a request that has come whole and has
// its handler run, right there as a rule, since a hand-over to another thread costs about as much
// as all else that is done for a small request.
//
// A handler that takes its time does not hold up the others: the thread of Server::run looks at
// each loop once a millisecond, and has another thread drive it when its own was in the same
// handler twice and waits for something, or was there ten times. One that only has to share its
// processor is left alone: no other would get along faster. That thread then ends what it does and
// leaves the loop alone. Where handlers have turned out to be slow, the next ones are handed to
// other threads from the start.
//
// Ownership: owns its connections, but those that are away.
// Rule: one thread drives at a time; only adopt, takeOver, expectSlowHandlers, wake and end are
//   for others.
class Loop {
public:
    explicit Loop(ServerCore& core);
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;
    ~Loop();

    // A connection that is new, or comes back.
    void adopt(Connection& connection);

    // Serves until end, or until another thread does.
    void drive();

    // Whether the driver sits in the same handler as at the last call: then it is no longer the
    // driver, and the caller sees to a new one.
    bool takeOver();

    // Whether the driver was in no handler at the last call of takeOver, nor since the one before.
    [[nodiscard]] bool isQuiet() const { return m_quiet && m_turn.load() == m_lastTurn; }

    // Has the driver close the connections that have been idle for longest.
    void giveWay(int connections);

    void expectSlowHandlers();
    void wake() const { m_wakeUp.send(); }

    // The driver closes the connections and returns; from then on it is not driven.
    void end();
    [[nodiscard]] bool isDriven() const { return m_driven.load(std::memory_order_acquire); }

private:
    enum class Turn { kept, lost };

    Turn serveEvents();
    Turn serveArrived();
    Turn onEvent(Connection& connection, std::uint32_t events);
    Turn greet(Connection& connection);
    Turn converse(Connection& connection);
    Turn serve(Connection& connection, RequestReader::Outcome& outcome);
    unsigned enterHandler();
    Turn leaveHandler(unsigned turn);
    bool settle(Connection& connection);
    void waitForRest(Connection& connection);
    bool writeOn(Connection& connection);
    void discard(Connection& connection);
    void startDiscarding(Connection& connection);
    void expire();
    void cutOffSlow();
    void refuseLate(Connection& connection);
    void enlist(Connection& connection, Connection::State state, Clock::duration limit);
    void takeOut(Connection& connection);
    void close(Connection& connection);
    void closeAll();
    ConnectionList& listOf(Connection::State state);
    int timeToWait() const;

    ServerCore& m_core;
    Descriptor m_epoll;
    WakeUp m_wakeUp;
    std::mutex m_mutex;
    ConnectionList m_adopted;  // under the mutex

    // The driver's. A driver that has lost its turn has left all of it as the next one needs it.
    std::array<epoll_event, 256> m_events{};
    int m_eventCount = 0;
    int m_nextEvent = 0;
    ConnectionList m_arrived;  // to be looked at before the next events
    ConnectionList m_again;    // and after them
    ConnectionList m_greeting, m_idle, m_partial, m_writing, m_discarding;
    std::unique_ptr<Exchange> m_exchange;
    Clock::time_point m_now{};
    Clock::time_point m_ratesSeen{};  // when peers that write slowly were last looked for

    // Odd while the driver is in a handler; raised by it at both ends, or by takeOver.
    std::atomic<unsigned> m_turn{0};
    unsigned m_lastTurn = 0;  // that takeOver saw
    int m_timesSeen = 0;      // there, in a handler
    bool m_quiet = false;
    std::atomic<int> m_slowExpected{0};  // requests to come that are handed over
    std::atomic<int> m_wayWanted{0};     // idle connections to close
    std::atomic<int> m_driver{0};        // its number in the system
    std::atomic<bool> m_ended{false};
    std::atomic<bool> m_driven{true};
};

}  // namespace postwire
