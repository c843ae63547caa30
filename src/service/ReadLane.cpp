#include "service/ReadLane.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include <sys/epoll.h>

#include "service/Exchange.h"
#include "service/Loop.h"
#include "service/ServerCore.h"
#include "service/ServiceError.h"
#include "service/SignalsBlocked.h"

namespace postwire {

namespace {

// How often deadlines are looked at, while there are any.
constexpr std::chrono::milliseconds kTick{100};

}  // namespace

// One request on its way.
class ReadLane::Reading : public InputWait {
public:
    Reading(ReadLane& lane, Connection& connection, std::unique_ptr<Exchange> exchange)
        : m_options(lane.m_core.options()),
          m_connection(connection),
          m_exchange(std::move(exchange)),
          m_headEnd(connection.began + m_options.headLimit),
          m_requestEnd(connection.began + limitOf(connection)),
          m_fiber(lane.m_stacks, [this](Fiber&) { read(); }) {}

    // True when there is an outcome.
    bool resume() { return m_fiber.resume(); }
    bool giveUp() {
        m_late = true;
        return resume();
    }

    [[nodiscard]] bool isLate(Clock::time_point now) const {
        return now >= m_requestEnd || (m_inHead && now >= m_headEnd) ||
               isTooSlow(m_options, now - m_connection.began, m_exchange->reader.received());
    }
    [[nodiscard]] RequestReader::Outcome outcome() const { return m_outcome; }
    [[nodiscard]] Connection& connection() const { return m_connection; }
    std::unique_ptr<Exchange> takeExchange() { return std::move(m_exchange); }

    std::size_t index = 0;  // among the lane's

private:
    void read() { m_outcome = m_exchange->read(m_connection, this, false); }

    std::chrono::milliseconds limitOf(Connection const& connection) const {
        bool const given = connection.choice && connection.choice->limit.count() > 0;
        return given ? connection.choice->limit : m_options.requestLimit;
    }

    // What is raised here unwinds the fiber's stack from within the fiber.
    void wait(Connection&, bool inHead) override {
        m_inHead = inHead;
        if (!m_late) m_fiber.suspend();
        if (m_late) throw TimeLimitPassed();
    }

    ServerOptions const& m_options;
    Connection& m_connection;
    std::unique_ptr<Exchange> m_exchange;
    Clock::time_point const m_headEnd;
    Clock::time_point const m_requestEnd;
    RequestReader::Outcome m_outcome = RequestReader::Outcome::closed;
    bool m_inHead = true;
    bool m_late = false;
    Fiber m_fiber;
};

ReadLane::ReadLane(ServerCore& core) : m_core(core), m_epoll(makeEpoll()) {
    if (!watch(m_epoll, m_wakeUp.descriptor(), EPOLLIN | EPOLLET, nullptr))
        throw ServiceError(ServiceError::Code::system, "can't wait for an event", errno);
    SignalsBlocked const blocked;
    m_thread = std::thread(&ReadLane::run, this);
}

ReadLane::~ReadLane() {
    end();
    m_thread.join();
}

void ReadLane::end() {
    m_ended = true;
    m_wakeUp.send();
}

void ReadLane::read(Connection& connection) {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_arrived.append(connection);
    }
    m_wakeUp.send();
}

void ReadLane::run() {
    std::array<epoll_event, 256> events{};
    Clock::time_point lookedAt{};
    while (!m_ended) {
        int const wait = m_readings.empty() ? -1 : static_cast<int>(kTick.count());
        int const n =
            ::epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), wait);
        for (int i = 0; i < n; ++i) {
            void* const what = events[static_cast<std::size_t>(i)].data.ptr;
            if (what)
                resume(*static_cast<Reading*>(what));
            else
                m_wakeUp.take();
        }
        serveArrived();
        if (Clock::now() - lookedAt < kTick) continue;
        lookedAt = Clock::now();
        giveUpLate(false);
    }
    serveArrived();
    giveUpLate(true);
}

// A connection that there is no memory for goes back as failed.
void ReadLane::serveArrived() {
    for (;;) {
        Connection* connection = nullptr;
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            connection = m_arrived.take();
        }
        if (!connection) return;
        try {
            begin(*connection);
        } catch (std::bad_alloc const&) {
            connection->failed = true;
            connection->home.adopt(*connection);
        }
    }
}

void ReadLane::begin(Connection& connection) {
    auto reading = std::make_unique<Reading>(*this, connection, m_core.takeExchange());
    reading->index = m_readings.size();
    m_readings.push_back(std::move(reading));
    Reading& begun = *m_readings.back();
    if (watch(m_epoll, connection.fd, EPOLLIN | EPOLLRDHUP | EPOLLET, &begun)) return resume(begun);
    m_readings.pop_back();
    throw std::bad_alloc();
}

void ReadLane::resume(Reading& reading) {
    if (reading.resume()) finish(reading);
}

void ReadLane::finish(Reading& reading) {
    Connection& connection = reading.connection();
    RequestReader::Outcome const outcome = reading.outcome();
    std::unique_ptr<Exchange> exchange = reading.takeExchange();
    ::epoll_ctl(m_epoll.get(), EPOLL_CTL_DEL, connection.fd, nullptr);
    std::size_t const index = reading.index;
    std::swap(m_readings[index], m_readings.back());
    m_readings[index]->index = index;
    m_readings.pop_back();
    if (outcome == RequestReader::Outcome::whole)
        m_core.answerElsewhere(std::move(exchange));
    else
        m_core.conclude(std::move(exchange), outcome);
}

void ReadLane::giveUpLate(bool all) {
    Clock::time_point const now = Clock::now();
    for (std::size_t i = m_readings.size(); i-- > 0;) {
        Reading& reading = *m_readings[i];
        if ((all || reading.isLate(now)) && reading.giveUp()) finish(reading);
    }
}

}  // namespace postwire
