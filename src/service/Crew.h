#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "service/Exchange.h"

namespace postwire {

class Loop;

// The threads of a server: each drives a loop or runs a handler, and then takes what waits next.
// One is started when there is something to do that no other is free for.
//
// Ownership: owns exchanges until they are answered; loops are borrowed.
class Crew {
public:
    using Answer = std::function<void(std::unique_ptr<Exchange>)>;

    // For so many loops. Up to `least` threads are started as they are wanted, up to `most` where
    // others are stuck; each answers exchanges by `answer`, out of which no exception comes.
    Crew(int loops, int least, int most, Answer answer);
    Crew(Crew const&) = delete;
    Crew& operator=(Crew const&) = delete;

    // Waits for all threads.
    ~Crew();

    // Starts a thread for what will be wanted; false where the system has none.
    bool startOne() noexcept;

    // Has a thread drive the loop at once, or when one is free.
    void drive(Loop& loop) noexcept;

    // Has a thread answer it when one is free. Raises std::bad_alloc, and then does not.
    void answer(std::unique_ptr<Exchange> exchange);

    // To be called now and then: starts threads where what waits has not become less since the last
    // call. Quick handlers need no more threads than there are processors.
    void grow();

    // Whether exchanges wait for a thread.
    bool isBehind();

    // Whether the thread of a loop may run a handler itself: another one could take its place.
    [[nodiscard]] bool hasRoom() const { return m_busy.load(std::memory_order_relaxed) < m_most; }

    // Threads end when nothing is left to do.
    void end();

private:
    bool hire() noexcept;
    void work();

    std::size_t const m_least;
    std::size_t const m_most;
    Answer const m_answer;
    std::mutex m_mutex;
    std::condition_variable m_wanted;
    std::vector<Loop*> m_loops;  // with room for all
    std::deque<std::unique_ptr<Exchange>> m_exchanges;
    std::size_t m_idle = 0;  // threads, those that are on their way among them
    std::atomic<std::size_t> m_busy{0};
    std::size_t m_taken = 0;      // exchanges
    std::size_t m_lastTaken = 0;  // that grow saw
    bool m_ended = false;
    std::vector<std::thread> m_threads;
};

}  // namespace postwire
