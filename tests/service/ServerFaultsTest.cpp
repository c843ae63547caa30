#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include "service/HttpPeer.h"
#include "service/RunningServer.h"

namespace {

using postwire::Request;
using postwire::Response;
using postwire::ServerOptions;
using postwire::ServiceError;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

void tellPeer(Request& request, Response& response) {
    response.send(200, "text/plain", request.peerAddress());
}

TEST(ServerListens, OnAddressesOfBothKindsAndOnADescriptor) {
    struct {
        char const* address;
        char const* client;
        std::string seen;  // empty: not reached
    } const cases[] = {
        {"", "::ffff:127.0.0.1", "127.0.0.1"},
        {"", "::1", "::1"},
        {"127.0.0.1", "::ffff:127.0.0.1", "127.0.0.1"},
        {"127.0.0.1", "::1", ""},
        {"::1", "::1", "::1"},
        {"::1", "::ffff:127.0.0.1", ""},
    };
    for (auto const& [address, client, seen] : cases) {
        SCOPED_TRACE(std::string(address) + " " + client);
        ServerOptions options = oneLoop();
        options.address = address;
        RunningServer server(tellPeer, options);
        EXPECT_EQ(seen, HttpPeer(client, server.port()).exchange(post("/")).body);
    }
    ServerOptions options = oneLoop();
    options.descriptor = ::socket(AF_INET6, SOCK_STREAM, 0);
    EXPECT_EQ(0, ::listen(options.descriptor, 8));
    RunningServer server(tellPeer, options);
    EXPECT_EQ("::1", HttpPeer("::1", server.port()).exchange(post("/")).body);
}

TEST(ServerListens, NotWithoutAThread) {
    pthread_attr_t before, huge;
    pthread_getattr_default_np(&before);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, (SIZE_MAX / 4 + 1) * 3);
    postwire::Server server(oneLoop());
    pthread_setattr_default_np(&huge);
    EXPECT_THROW(server.run(tellPeer), ServiceError);
    pthread_setattr_default_np(&before);
}

TEST(ServerListens, NotOnWhatIsNoAddressOfThisMachine) {
    RunningServer taken(tellPeer, oneLoop());
    std::pair<char const*, int> const cases[] = {
        {"localhost", 0}, {"192.0.2.1", 0}, {"", 65536}, {"", taken.port()}};
    for (auto const& [address, port] : cases) {
        ServerOptions options;
        options.address = address;
        options.port = port;
        try {
            postwire::Server const server(options);
            ADD_FAILURE() << address;
        } catch (ServiceError const& e) {
            EXPECT_EQ(ServiceError::Code::address, e.code());
        }
    }
}

TEST(ServerFaults, HalfAnAnswerIsNoAnswerAndACatchMayGiveOne) {
    std::string const large(4 << 20, 'x');
    ServerOptions options = oneLoop();
    options.bodyBudget = 0;  // so that a large answer waits for its peer
    RunningServer server(
        [&](Request& request, Response& response) {
            if (request.uri() == "/half") {
                response.onePiece(200, "", 1000).write(large.data(), 1 << 20);
                throw 42;
            }
            try {
                throw 42;
            } catch (int const&) {
                response.send(200, "", large);
            }
        },
        options);
    HttpPeer half(server.port());
    half.send(post("/half") + post("/"));
    std::string const got = half.rest(large.size());
    EXPECT_EQ(0U, got.find("HTTP/1.1 200"));
    EXPECT_EQ(std::string::npos, got.find("\r\n0\r\n\r\n"));
    EXPECT_GT(std::size_t{1} << 21, got.size());
    EXPECT_EQ(large, HttpPeer(server.port(), 4096).exchange(post("/")).body);
}

long descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A small request, one that is read elsewhere, and one whose answer is on its way.
TEST(ServerFaults, ClientMayResetAtAnyPoint) {
    std::string const large(3 << 20, 'x');
    long const before = descriptors();
    std::atomic<int> asked{0};
    {
        RunningServer server(
            [&](Request& request, Response& response) {
                ++asked;
                response.send(200, "", request.uri() == "/large" ? large : "small");
            },
            oneLoop());
        for (std::string const& wire : {post("/", "hello"), post("/", std::string(100000, 'x')),
                                        post("/large") + post("/large")})
            for (std::size_t end = 0; end < wire.size(); end += 1 + wire.size() / 100) {
                HttpPeer peer(server.port());
                peer.send(std::string_view(wire).substr(0, end));
                if (end > wire.size() / 2 && wire.find("large") == 6) peer.rest(end % 3);
                peer.reset();
            }
        EXPECT_EQ("small", HttpPeer(server.port()).exchange(post("/")).body);
    }
    EXPECT_EQ(before, descriptors());
    EXPECT_LT(10, asked);
}

// One that reads far slower than its deadline allows, or stops when its handler has left the rest.
TEST(ServerFaults, SlowReaderIsCutOffAtItsAnswersDeadline) {
    struct {
        std::size_t budget, answer, takes;
        int times;
    } const cases[] = {
        {0, 16 << 20, 512, 150}, {64 << 20, 16 << 20, 512, 150}, {0, 400000, 28000, 12}};
    for (auto const& c : cases) {
        ServerOptions options = oneLoop();
        options.answerLimit = seconds(3);
        options.bodyBudget = c.budget;
        int port = 0;
        int const little = 4096;  // the system holds less than a handler may leave
        options.descriptor = listenOnLoopback(port);
        ::setsockopt(options.descriptor, SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
        RunningServer server(
            [&](Request&, Response& response) {
                response.send(200, "", std::string(c.answer, 'x'));
            },
            options);
        Clock::time_point const begin = Clock::now();
        HttpPeer slow(port, 4096);
        slow.send(post("/"));
        EXPECT_TRUE(slow.isCutOff(c.takes, c.times));
        EXPECT_GE(Clock::now() - begin, options.answerLimit);
        EXPECT_LT(Clock::now() - begin, milliseconds(4900));
    }
}

// Whoever sends or takes next to nothing, long before the other deadlines.
TEST(ServerFaults, PeersBelowTheLowestRateAreCutOff) {
    auto const large = [](Request&, Response& response) {
        response.send(200, "", std::string(16 << 20, 'x'));
    };
    ServerOptions waiting;
    waiting.bodyBudget = 0;  // handlers wait for their peers
    RunningServer server(large), other(large, waiting);
    Clock::time_point const begin = Clock::now();
    HttpPeer sender(server.port());
    HttpPeer reader(server.port(), 4096), late(other.port(), 100000);
    sender.send(post("/", std::string(100000, 'x')).substr(0, 900));
    reader.send(post("/"));
    late.send(post("/"));
    EXPECT_EQ(408, sender.receive().status);
    EXPECT_GE(Clock::now() - begin, seconds(9));
    EXPECT_TRUE(reader.isCutOff());
    EXPECT_TRUE(late.isCutOff());
    EXPECT_LT(Clock::now() - begin, seconds(30));
}

}  // namespace
