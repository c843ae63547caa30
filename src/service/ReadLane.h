#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "service/Connection.h"
#include "service/Descriptor.h"
#include "service/Fiber.h"

namespace postwire {

class ServerCore;

// Reads the requests that did not come at once: large ones and those of slow peers. Each is read on
// a stack of its own that is left where the bytes end and gone back to when more have come, so
// that one thread waits for all of them and a slow peer costs memory alone. No handler runs here.
//
// Ownership: borrows connections, and gives them back to their loops or, with a request, to the
//   crew.
class ReadLane {
public:
    explicit ReadLane(ServerCore& core);
    ReadLane(ReadLane const&) = delete;
    ReadLane& operator=(ReadLane const&) = delete;

    // Ends it, and waits.
    ~ReadLane();

    // From any thread.
    void read(Connection& connection);

    // What is still being read is given up.
    void end();

private:
    class Reading;

    void run();
    void serveArrived();
    void begin(Connection& connection);
    void resume(Reading& reading);
    void finish(Reading& reading);
    void giveUpLate(bool all);

    ServerCore& m_core;
    Descriptor m_epoll;
    WakeUp m_wakeUp;
    std::mutex m_mutex;
    ConnectionList m_arrived;  // under the mutex
    StackPool m_stacks;
    std::vector<std::unique_ptr<Reading>> m_readings;
    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

}  // namespace postwire
