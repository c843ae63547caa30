#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "service/Budget.h"
#include "service/Connection.h"
#include "service/Crew.h"
#include "service/Descriptor.h"
#include "service/Exchange.h"
#include "service/Listener.h"
#include "service/Loop.h"
#include "service/ReadLane.h"
#include "service/Server.h"
#include "service/ServerOptions.h"

namespace postwire {

// What stands behind a Server: the listener, whose connections go to the loops in turn, the lanes
// beside the loops, and the crew. The thread in run accepts, and looks after loops whose handlers
// are slow.
class ServerCore {
public:
    explicit ServerCore(ServerOptions const& options);
    ServerCore(ServerCore const&) = delete;
    ServerCore& operator=(ServerCore const&) = delete;
    ~ServerCore();

    [[nodiscard]] PeerAddress const& address() const { return m_address; }
    void run(Exchange::Handler handler);
    void stop() noexcept;
    [[nodiscard]] ServerLoad load() const noexcept;

    // For loops and lanes, from any thread.

    [[nodiscard]] ServerOptions const& options() const { return m_options; }
    [[nodiscard]] Exchange::Handler const& handler() const { return m_handler; }
    // A connection begins or ceases to be idle.
    void countIdle(int change) noexcept { m_idle.fetch_add(change, std::memory_order_relaxed); }

    [[nodiscard]] Budget& budget() { return m_budget; }
    [[nodiscard]] Crew& crew() { return m_crew; }
    [[nodiscard]] bool isStopping() const { return m_stopping.load(std::memory_order_acquire); }
    [[nodiscard]] Clock::time_point stoppedAt() const { return m_stoppedAt; }

    // Exchanges are kept for the next to want one.
    std::unique_ptr<Exchange> takeExchange();
    void giveBack(std::unique_ptr<Exchange> exchange);

    // A request whose handler another thread runs, or asks how to read it.
    void answerElsewhere(std::unique_ptr<Exchange> exchange) noexcept;

    // A request of which not all has come.
    void readElsewhere(Connection& connection);

    // Does for a request, away from its loop, what became of reading it.
    void conclude(std::unique_ptr<Exchange> exchange, RequestReader::Outcome outcome) noexcept;

    // The connection's answer is out, or never will be: whoever observes is told.
    void report(Connection& connection) noexcept;

    void endConnection(std::unique_ptr<Connection> connection) noexcept;

    // A handler begins, or is to begin: someone has to see how long that takes.
    void rouse() {
        if (m_asleep.load() && m_asleep.exchange(false)) m_wakeUp.send();
    }

private:
    void begin();
    void startLoops();
    void endLoops();
    void wait();
    void lookAfterLoops();
    void acceptAll();
    bool acceptOne();
    void lack(int error) noexcept;
    void complain(std::string const& text) const;
    void beginToTrace(Connection& connection);
    void traceFailed(int error) noexcept;
    bool admit(Connection const& connection);
    void turnAway(std::unique_ptr<Connection> connection) noexcept;
    void beginToStop();
    void answer(std::unique_ptr<Exchange> exchange) noexcept;

    ServerOptions const m_options;
    Listener m_listener;
    PeerAddress const m_address;
    WakeUp m_wakeUp;
    Budget m_budget;
    Exchange::Handler m_handler;
    std::atomic<bool> m_stopWanted{false};
    std::atomic<bool> m_stopping{false};
    std::atomic<bool> m_asleep{false};
    Clock::time_point m_stoppedAt{};  // written before m_stopping
    std::atomic<int> m_connections{0};
    std::atomic<int> m_idle{0};
    int m_traces = 0;
    bool m_acceptsAgainLater = false;
    Clock::time_point m_lackedAt{};    // descriptors or memory, last
    Clock::time_point m_untracedAt{};  // last, under the mutex

    std::mutex m_mutex;
    std::vector<std::unique_ptr<Exchange>> m_exchanges;
    std::map<PeerAddress::Key, int> m_ofAddress;  // connections, where they are limited

    std::vector<std::unique_ptr<Loop>> m_loops;
    std::size_t m_nextLoop = 0;
    Crew m_crew;  // ends before the loops that its threads may come back to
    std::vector<std::unique_ptr<ReadLane>> m_lanes;  // and these before the crew
};

}  // namespace postwire
