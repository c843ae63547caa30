#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "socket/SoapSocket.h"
#include "tools/common/Deadline.h"
#include "tools/common/PartFiles.h"
#include "tools/serve/ConnectionQueue.h"

class StopSignals;

struct ServerOptions {
    int port = 0;
    int workers = 16;
    std::string answer;  // sent instead of a receipt where there is a type
    std::string answerType;
    bool echo = false;
    int chunkSize = 0;           // of echoed messages; 0: with a length
    std::string saveDirectory;   // empty: nothing is saved
    std::string traceDirectory;  // empty: nothing is traced
    Deadline::Clock::duration idleTimeout = std::chrono::seconds(60);
    Deadline::Clock::duration requestTimeout = std::chrono::seconds(60);
    int maxBody = 64 << 20;
    bool contract = false;  // reads as the library does by default
};

// A listening socket, the thread that accepts from it, and the workers that serve the connections,
// each one at a time.
class Server {
public:
    // Listens from now on. Raises what SoapServerSocket::Open raises, and std::system_error for a
    // directory that can't be used.
    explicit Server(ServerOptions const& options);
    ~Server();

    int port() const { return m_listener.m_boundPort; }

    // Starts the workers. Raises std::system_error when a thread can't be had.
    void start();

    // Accepts until a signal arrives, then lets the requests under way finish. False when some did
    // not within the request timeout: their threads still run.
    bool run(StopSignals& signals);

    // For the connections.

    ServerOptions const& options() const { return m_options; }
    PartFiles const* partFiles() const { return m_partFiles.get(); }

    // The number of the next request, from 1 on.
    int nextRequest() { return ++m_requests; }

    // A new, empty file in the trace directory, which no one but its owner may read: a trace holds
    // every secret that went over the connection. Its descriptor is the caller's.
    int makeTraceFile();

    // Whether idle connections should give way: to others that wait for a worker, or to the end.
    bool wantsIdleToEnd() const { return stopping() || m_queue.crowded(); }
    bool stopping() const { return stopBy() != Deadline::Clock::time_point::max(); }

    // When everything has to be over; the end of time unless the server is stopping.
    Deadline::Clock::time_point stopBy() const { return m_stopBy.load(std::memory_order_relaxed); }

    // Tells the operator what no client is told.
    static void complain(std::string const& text);

private:
    void accept(StopSignals& signals);
    int acceptOne();
    void work();
    void serve(int descriptor);

    ServerOptions const m_options;
    std::unique_ptr<PartFiles> m_partFiles;
    SoapServerSocket m_listener;
    ConnectionQueue m_queue;
    std::atomic<Deadline::Clock::time_point> m_stopBy;
    std::atomic<int> m_requests{0};
    std::atomic<int> m_traces{0};
    std::mutex m_mutex;
    std::condition_variable m_workerEnded;
    int m_runningWorkers = 0;
    std::vector<std::thread> m_workers;
};
