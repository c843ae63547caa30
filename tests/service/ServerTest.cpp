#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "service/HttpPeer.h"
#include "service/Server.h"
#include "support/CaseFile.h"

namespace {

using postwire::Request;
using postwire::Response;
using postwire::ServerOptions;
using postwire::ServiceError;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// Says what was read: body, number of parts, target.
void describe(Request& request, Response& response) {
    HTTPMessage& message = request.message();
    std::string text(request.uri());
    text += " " + std::to_string(message.num_parts()) + " ";
    text.append(message.contentSize() > 0 ? message.contentBytes() : "",
                static_cast<std::size_t>(message.contentSize()));
    response.send(200, "text/plain", text);
}

class RunningServer {
public:
    explicit RunningServer(postwire::Server::Handler handler = describe, ServerOptions options = {})
        : m_server(std::move(options)),
          m_thread([this, handler = std::move(handler)] { m_server.run(handler); }) {}
    ~RunningServer() { stop(); }

    void stop() {
        m_server.stop();
        if (m_thread.joinable()) m_thread.join();
    }
    postwire::Server& operator*() { return m_server; }
    int port() const { return m_server.port(); }

private:
    postwire::Server m_server;
    std::thread m_thread;
};

ServerOptions oneLoop() {
    ServerOptions options;
    options.loops = 1;
    return options;
}

std::string chunked(std::string const& body) {
    return "POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n" +
           body.substr(0, 5) + "\r\n1;x=y\r\n" + body.substr(5, 1) + "\r\n0\r\n\r\n";
}

TEST(ServerReading, RequestIsReadHoweverItsBytesArrive) {
    RunningServer server(describe, oneLoop());
    std::string const large(300000, 'x');
    std::string const parts = "--B\r\nX: 1\r\n\r\na\r\n--B\r\n\r\nb\r\n--B--\r\n";
    std::string const inParts =
        post("/p", parts, "Content-Type: multipart/related; boundary=B\r\n");
    std::pair<std::string, std::string> const cases[] = {
        {post("/a", "hello"), "/a 0 hello"},
        {chunked("hello!"), "/ 0 hello!"},
        {inParts, "/p 2 "},
        {post("/large", large), "/large 0 " + large},
    };
    int count = 0;
    for (auto const& [wire, text] : cases)
        for (std::size_t const step : {wire.size(), wire.find("\r\n\r\n") + 4, std::size_t{1}}) {
            if (wire.size() / step > 1000) continue;
            HttpPeer peer(server.port());
            for (std::size_t at = 0; at < wire.size(); at += step)
                peer.send(std::string_view(wire).substr(at, step));
            EXPECT_EQ(text, peer.receive().body);
            EXPECT_EQ(text, peer.exchange(wire).body);  // on the same connection
            ++count;
        }
    EXPECT_EQ(10, count);
}

TEST(ServerReading, PipelinedRequestsAreAnsweredInTurn) {
    RunningServer server;
    HttpPeer peer(server.port());
    std::string wire;
    for (int i = 0; i < 3000; ++i) wire += post("/" + std::to_string(i), "body");
    std::thread sender([&] { peer.send(wire); });
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ("/" + std::to_string(i) + " 0 body", peer.receive().body);
    sender.join();
}

TEST(ServerReading, HandlerSeesPeerVersionAndHeadLinesAsTheyCame) {
    RunningServer server([](Request& request, Response& response) {
        std::string text = request.peerAddress() + " 1." + std::to_string(request.minorVersion());
        for (int head = 0; head <= request.headCount(); ++head)
            for (auto const& line : request.headLines(head))
                text.append("\n").append(line.name).append("=").append(line.text);
        response.send(200, "text/plain", request.peerPort() > 0 ? text : "");
    });
    std::string const parts = "--B\r\nZ: 2\r\na:  b; c=\"d\" \r\nZ: 1\r\n\r\na\r\n--B--\r\n";
    EXPECT_EQ(
        "127.0.0.1 1.1\nhost=a\nx-a=1\nx-b=\nx-a=2; q\ncontent-type=multipart/related; boundary=B\n"
        "content-length=44\nz=2\na=b; c=\"d\"\nz=1",
        HttpPeer(server.port())
            .exchange(post("/", parts,
                           "X-A: 1\r\nx-b:\r\nX-A: 2; q\r\n"
                           "Content-Type: multipart/related; boundary=B\r\n"))
            .body);
}

TEST(ServerReading, ContinueIsSentOnceAndOnlyWhereItIsWaitedFor) {
    RunningServer server(describe, oneLoop());
    HttpPeer peer(server.port());
    std::string const wire = post("/", "hello", "Expect: 100-continue\r\n");
    std::size_t const head = wire.size() - 5;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(100, peer.exchange(wire.substr(0, head)).status);
        peer.send(wire.substr(head, 2));
        peer.send(wire.substr(head + 2));
        EXPECT_EQ("/ 0 hello", peer.receive().body);
    }
    EXPECT_EQ(200, peer.exchange(wire).status);
}

// One that refuses much, and soon.
ServerOptions strict() {
    ServerOptions options = oneLoop();
    options.policy.maxBody = 2000;
    options.headLimit = options.requestLimit = milliseconds(300);
    return options;
}

class ServerAnswer : public testing::TestWithParam<TestCase> {};

TEST_P(ServerAnswer, FaultHasItsStatusAndEndsTheConnection) {
    TestCase const& c = GetParam();
    SCOPED_TRACE(c.where());
    RunningServer server(
        [](Request& request, Response&) {
            if (request.uri() == "/raise") throw 42;
        },
        strict());
    HttpPeer peer(server.port());
    HttpPeer::Answer answer = peer.exchange(c["sends"]);
    EXPECT_EQ(c.number("status"), answer.status);
    EXPECT_TRUE(answer.says(c["says"])) << answer.head;
    EXPECT_NE(std::string::npos, answer.head.find(" GMT\r\n"));
    if (answer.status == 500) answer = peer.receive();  // that was no fault of the client
    EXPECT_TRUE(answer.says("Connection: close"));
    EXPECT_TRUE(peer.isClosed());
    EXPECT_EQ(202, HttpPeer(server.port()).exchange(post("/")).status);
}

INSTANTIATE_TEST_SUITE_P(Rows, ServerAnswer, testing::ValuesIn(loadCases("server_refusals.txt")),
                         [](auto const& row) { return "L" + std::to_string(row.param.line()); });

TEST(ServerAnswers, KeepAliveIsSaidToOldClientsThatAskForIt) {
    RunningServer server;
    HttpPeer peer(server.port());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(peer.exchange("POST / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n")
                        .says("Connection: keep-alive"));
}

TEST(ServerAnswers, HalfClosedClientIsAnsweredAndSeen) {
    RunningServer server([](Request& request, Response& response) {
        response.send(200, "text/plain", request.cancelled() ? "gone" : "here");
    });
    HttpPeer peer(server.port());
    EXPECT_EQ("here", peer.exchange(post("/")).body);
    peer.send(post("/").substr(0, 10));
    peer.finish();
    EXPECT_EQ(400, peer.receive().status);
    HttpPeer other(server.port());
    other.send(post("/"));
    other.finish();
    EXPECT_EQ(200, other.receive().status);
    EXPECT_TRUE(other.isClosed());
}

TEST(ServerAnswers, MisuseRaisesAndNothingOfItGoesOut) {
    RunningServer server([](Request&, Response& response) {
        int raised = 0;
        auto const misuse = [&](auto const& call) {
            try {
                call();
            } catch (ServiceError const& e) {
                raised += e.code() == ServiceError::Code::usage;
            }
        };
        misuse([&] { response.setHeader("X", "a\r\nY: b"); });
        misuse([&] { response.setHeader("X\r\n", "a"); });
        misuse([&] { response.setHeader("content-length", "1"); });
        misuse([&] { response.send(200, "a\nb", ""); });
        misuse([&] { response.send(100, "", ""); });
        response.setHeader("X-Raised", std::to_string(raised));
        response.send(204, "", "");
        response.send(200, "", "twice");
    });
    HttpPeer peer(server.port());
    for (int i = 0; i < 2; ++i) {
        HttpPeer::Answer const answer = peer.exchange(post("/"));
        EXPECT_EQ(500, answer.status);  // the second answer raised, and the first had not left
        EXPECT_FALSE(answer.says("X-Raised: 5"));
    }
}

// Each handler waits for one that comes later, on a server with a single loop.
TEST(ServerThreads, HandlersThatBlockHoldUpNobody) {
    constexpr int kBlocked = 20;
    std::promise<void> released;
    std::shared_future<void> const release = released.get_future().share();
    RunningServer server(
        [release](Request& request, Response& response) {
            if (request.uri() == "/block") release.wait();
            response.send(200, "text/plain", request.uri());
        },
        oneLoop());
    std::vector<std::unique_ptr<HttpPeer>> blocked;
    for (int i = 0; i < kBlocked; ++i) {
        blocked.push_back(std::make_unique<HttpPeer>(server.port()));
        blocked.back()->send(post("/block"));
        EXPECT_EQ("/quick", HttpPeer(server.port()).exchange(post("/quick", "x")).body);
    }
    released.set_value();
    for (auto const& peer : blocked) {
        EXPECT_EQ("/block", peer->receive().body);
        EXPECT_EQ("/again", peer->exchange(post("/again")).body);
    }
}

TEST(ServerLimits, ConnectionBeyondTheLimitIsTurnedAway) {
    for (bool const ofAddress : {false, true}) {
        ServerOptions options = oneLoop();
        (ofAddress ? options.maxConnectionsOfAddress : options.maxConnections) = 2;
        RunningServer server(describe, options);
        HttpPeer first(server.port());
        {
            HttpPeer second(server.port());
            EXPECT_EQ(200, first.exchange(post("/")).status);
            EXPECT_EQ(200, second.exchange(post("/")).status);
            HttpPeer third(server.port());
            EXPECT_EQ(503, third.receive().status);
            EXPECT_TRUE(third.isClosed());
        }
        while (HttpPeer(server.port()).exchange(post("/")).status != 200) {
        }
        EXPECT_EQ(200, first.exchange(post("/")).status);
    }
}

TEST(ServerLimits, BodiesBeyondTheBudgetAreRefusedUntilOthersAreDone) {
    ServerOptions options = oneLoop();
    options.bodyBudget = 300000;
    RunningServer server(describe, options);
    HttpPeer holds(server.port());
    std::string const large = post("/", std::string(200000, 'x'));
    holds.send(std::string_view(large).substr(0, 190000));
    HttpPeer::Answer refused;
    while (refused.status != 503) refused = HttpPeer(server.port()).exchange(large);
    holds.send(std::string_view(large).substr(190000));
    EXPECT_EQ(200, holds.receive().status);
    EXPECT_EQ(200, holds.exchange(large).status);
}

TEST(ServerAnswers, LargeOneArrivesWholeWithAndWithoutMemoryToHoldIt) {
    for (std::size_t const budget : {std::size_t{0}, std::size_t{64} << 20}) {
        ServerOptions options = oneLoop();
        options.bodyBudget = budget;
        std::string body;
        for (int i = 0; i < 1000000; ++i) body += std::to_string(i % 1000 + 1000) + "\n";
        RunningServer server(
            [&](Request&, Response& response) { response.send(200, "text/plain", body); }, options);
        HttpPeer peer(server.port(), 65536);
        peer.send(post("/") + post("/"));
        EXPECT_TRUE(peer.receive().body == body);
        EXPECT_TRUE(peer.receive().body == body);
    }
}

TEST(ServerLimits, ClientThatTakesNoAnswerIsCutOffAtItsDeadline) {
    for (bool const fits : {true, false}) {
        ServerOptions options = oneLoop();
        options.answerLimit = milliseconds(1000);
        options.bodyBudget = fits ? 64 << 20 : 0;
        RunningServer server(
            [](Request& request, Response& response) {
                response.send(200, "", std::string(request.uri() == "/" ? 8 << 20 : 1, 'x'));
            },
            options);
        Clock::time_point const begin = Clock::now();
        HttpPeer deaf(server.port(), 4096);
        deaf.send(post("/") + post("/"));
        EXPECT_EQ("x", HttpPeer(server.port()).exchange(post("/small")).body);
        EXPECT_TRUE(deaf.isCutOff());
        EXPECT_GE(Clock::now() - begin, options.answerLimit);
    }
}

TEST(ServerLimits, IdleConnectionIsClosedAtItsDeadline) {
    ServerOptions options = oneLoop();
    options.idleLimit = milliseconds(200);
    RunningServer server(describe, options);
    HttpPeer peer(server.port());
    EXPECT_EQ(200, peer.exchange(post("/")).status);
    Clock::time_point const begin = Clock::now();
    EXPECT_TRUE(peer.isClosed());
    EXPECT_GE(Clock::now() - begin, options.idleLimit - milliseconds(100));
}

postwire::Server* stoppedBySignal = nullptr;

// Clients that ask until they are told to stop: each request that was sent is answered.
TEST(ServerStop, NoRequestIsLostUnderLoad) {
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> answered{0};
        ServerOptions options;
        options.loops = 2;
        RunningServer server(
            [&](Request& request, Response& response) {
                if (++answered % 7 == 0) std::this_thread::yield();
                describe(request, response);
            },
            options);
        std::vector<std::thread> clients;
        std::atomic<int> lost{0};
        for (int i = 0; i < 8; ++i)
            clients.emplace_back([&, i] {
                HttpPeer peer(server.port());
                std::string const body(i < 6 ? 10 : 100000, 'x');
                HttpPeer::Answer answer;
                while (!answer.says("Connection: close")) {
                    answer = peer.exchange(post("/", body));
                    if (answer.status != 200) ++lost;
                    if (answer.status != 200) return;
                }
            });
        while (answered < 500) std::this_thread::yield();
        HttpPeer idle(server.port());
        stoppedBySignal = &*server;
        std::signal(SIGUSR1, [](int) { stoppedBySignal->stop(); });
        if (round % 2 == 0)
            server.stop();
        else
            std::raise(SIGUSR1);
        for (std::thread& client : clients) client.join();
        server.stop();
        EXPECT_EQ(0, lost);
        EXPECT_TRUE(idle.isClosed());
    }
}

}  // namespace
