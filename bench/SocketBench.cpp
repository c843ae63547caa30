// Sockets over the loopback interface beside bare calls of the system in the same run: exchanges on
// one connection, a long transfer, and the heap of a connection that waits.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULBufferedOutputStream.h"

#include "socket/SoapSocket.h"

namespace {

// A message: start line, header block and body.
constexpr int kPieces[] = {26, 294, 1024};
constexpr int kMessage = 26 + 294 + 1024;
constexpr int kReadAhead = 4096;
constexpr long long kTransfer = 1LL << 30;

std::vector<char> const kBytes(1 << 20, 'x');

// Hands its descriptor over.
struct Opened : SoapSocket {
    int take() {
        int const fd = m_ioSocket;
        m_socket = m_ioSocket = -1;
        return fd;
    }
};

// Both ends of a connection as Open and accept set it up, or without TCP_NODELAY.
struct Connection {
    explicit Connection(bool delayed) {
        std::signal(SIGPIPE, SIG_IGN);
        SoapServerSocket server;
        server.Open(0);
        char host[] = "127.0.0.1";
        Opened opened;
        opened.SetServerHostInfo(host);
        opened.Open(server.m_boundPort);
        far = server.AwaitCommunicationAttempt();
        near = opened.take();
        int const off = 0;
        for (int fd : {near, far})
            if (delayed) ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &off, sizeof off);
    }
    int near;
    int far;
};

// An end that makes the calls itself.
class Bare {
public:
    explicit Bare(int fd) : m_fd(fd), m_memory(kBytes.size()) {}
    ~Bare() { ::close(m_fd); }
    Bare(Bare const&) = delete;
    Bare& operator=(Bare const&) = delete;

    void send(int n) {
        for (int done = 0; done < n;)
            done += checked(::send(m_fd, kBytes.data(), static_cast<std::size_t>(n - done), 0));
    }
    // In one call; 0 at the end.
    int receive(int n) {
        return checked(::recv(m_fd, m_memory.data(), static_cast<std::size_t>(n), 0));
    }
    void sendMessage() { send(kMessage); }
    void receiveMessage() {
        for (int done = 0; done < kMessage;) done += receive(kMessage - done);
    }

private:
    static int checked(ssize_t n) {
        if (n == -1) std::abort();
        return static_cast<int>(n);
    }

    int m_fd;
    std::vector<char> m_memory;
};

// The same three sends a message as the writers make.
struct BarePieces : Bare {
    using Bare::Bare;
    void sendMessage() {
        for (int n : kPieces) send(n);
    }
};

// An end with the library's streams.
class Streams {
public:
    explicit Streams(int fd)
        : m_socket(fd), m_in(*m_socket.getInputStream(), kReadAhead), m_memory(kBytes.size()) {}

    void send(int n) { m_socket.getOutputStream()->write(kBytes.data(), n); }
    int receive(int n) { return std::max(m_in.read(m_memory.data(), n), 0); }
    void sendMessage() {
        for (int n : kPieces) send(n);
    }
    void receiveMessage() {
        for (int n : kPieces) m_in.readFully(m_memory.data(), n);
    }

protected:
    SoapSocket m_socket;

private:
    ZULBufferedInputStream m_in;
    std::vector<char> m_memory;
};

// The same with the pieces of a message joined.
class JoinedStreams : public Streams {
public:
    explicit JoinedStreams(int fd) : Streams(fd), m_out(*m_socket.getOutputStream(), 65536) {}

    void sendMessage() {
        for (int n : kPieces) m_out.write(kBytes.data(), n);
        m_out.flush();
    }

private:
    ZULBufferedOutputStream m_out;
};

// A message and its answer, again and again. Ranges: exchanges; 1 for a connection without
// TCP_NODELAY. The first exchange is left out: a delay shows from the second one on.
template <class End>
void exchange(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    long const exchanges = state.range(0);
    bool const delayed = state.range(1) != 0;
    std::vector<double> microseconds;
    for (auto _ : state) {
        Connection const connection(delayed);
        std::thread answering([&] {
            End far(connection.far);
            for (long i = 0; i <= exchanges; ++i) {
                far.receiveMessage();
                far.sendMessage();
            }
        });
        End near(connection.near);
        for (long i = 0; i <= exchanges; ++i) {
            auto const begin = Clock::now();
            near.sendMessage();
            near.receiveMessage();
            std::chrono::duration<double, std::micro> const time = Clock::now() - begin;
            if (i > 0) microseconds.push_back(time.count());
        }
        answering.join();
    }
    std::sort(microseconds.begin(), microseconds.end());
    state.counters["median_us"] = microseconds[microseconds.size() / 2];
    state.counters["p99_us"] = microseconds[microseconds.size() * 99 / 100];
}

template <class End>
void transfer(benchmark::State& state) {
    int const block = static_cast<int>(state.range(0));
    for (auto _ : state) {
        Connection const connection(false);
        std::thread sending([&] {
            End far(connection.far);
            for (long long done = 0; done < kTransfer; done += block) far.send(block);
        });
        End near(connection.near);
        long long arrived = 0;
        for (int n; (n = near.receive(block)) > 0;) arrived += n;
        sending.join();
        if (arrived != kTransfer) state.SkipWithError("bytes are missing");
    }
    state.SetBytesProcessed(state.iterations() * kTransfer);
}

// What a connection holds between messages, after one exchange.
template <class Out>
void idleHeap(benchmark::State& state) {
    char memory[kMessage];
    for (auto _ : state) {
        Connection const connection(false);
        Bare far(connection.far);
        auto const before = mallinfo2().uordblks;
        SoapSocket socket(connection.near);
        ZULBufferedInputStream in(*socket.getInputStream(), kReadAhead);
        Out out(*socket.getOutputStream());
        far.sendMessage();
        in.readFully(memory, kMessage);
        out.write(memory, kMessage);
        out.flush();
        far.receiveMessage();
        state.counters["bytes"] = static_cast<double>(mallinfo2().uordblks - before);
    }
}

// No stream of its own: the socket's.
class Direct {
public:
    explicit Direct(ZULOutputStream& out) : m_out(out) {}
    void write(char const* data, int length) { m_out.write(data, length); }
    void flush() {}

private:
    ZULOutputStream& m_out;
};

struct Joined : ZULBufferedOutputStream {
    explicit Joined(ZULOutputStream& out) : ZULBufferedOutputStream(out, 65536) {}
};

}  // namespace

BENCHMARK_TEMPLATE(exchange, Bare)->Args({1000, 0})->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, BarePieces)->Args({1000, 0})->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, Streams)->Args({1000, 0})->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, JoinedStreams)->Args({1000, 0})->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(exchange, Streams)->Args({100, 1})->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(transfer, Bare)->Arg(4096)->Arg(65536)->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(transfer, Streams)->Arg(4096)->Arg(65536)->Iterations(1)->UseRealTime();
BENCHMARK_TEMPLATE(idleHeap, Direct)->Iterations(1);
BENCHMARK_TEMPLATE(idleHeap, Joined)->Iterations(1);
