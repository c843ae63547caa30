#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "foundation/ZULInputStream.h"

#include "service/HttpPeer.h"
#include "service/RunningServer.h"
#include "support/CaseFile.h"

namespace {

using postwire::Request;
using postwire::Response;
using postwire::ServerOptions;
using postwire::ServiceError;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

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
    RunningServer server(describe);
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
        "127.0.0.1 1.1\nHost=a\nX-A=1\nx-b=\nX-A=2; q\nContent-Type=multipart/related; boundary=B\n"
        "Content-Length=44\nZ=2\na=b; c=\"d\"\nZ=1",
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
    RunningServer server(describe);
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

// Handlers that take their time, so that other threads than its own leave answers to the loop; the
// peers make room before and after that.
TEST(ServerThreads, AnswersThatOthersLeaveAreWritten) {
    std::string const body(6 << 20, 'x');
    std::promise<void> released;
    std::shared_future<void> const release = released.get_future().share();
    RunningServer server(
        [&body, release](Request&, Response& response) {
            response.send(200, "", body);
            release.wait();
        },
        oneLoop());
    std::vector<std::unique_ptr<HttpPeer>> peers;
    for (int i = 0; i < 10; ++i) {
        peers.push_back(std::make_unique<HttpPeer>(server.port(), 65536));
        peers.back()->send(post("/") + post("/"));
    }
    std::thread releaser([&] { released.set_value(); });
    for (int i = 0; i < 2; ++i)
        for (auto const& peer : peers) EXPECT_EQ(body.size(), peer->receive().body.size());
    releaser.join();
}

TEST(ServerObserver, IsToldOfEachExchangeAndOfEachConnectionTurnedAway) {
    std::mutex mutex;
    std::multiset<std::string> seen;
    ServerOptions options = oneLoop();
    options.maxConnections = 1;
    options.observe = [&](postwire::ExchangeReport const& report) {
        std::lock_guard<std::mutex> const lock(mutex);
        std::string const sizes =
            report.bytesIn > 0 && report.bytesOut > report.bytesIn ? " sized" : "";
        seen.insert(report.peer + " " + report.uri + " " + std::to_string(report.status) + sizes +
                    " " + std::to_string(report.code) + " " + report.text);
        EXPECT_GE(report.handler, milliseconds(report.uri == "/slow" ? 5 : 0));
        throw 42;
    };
    RunningServer server(
        [](Request& request, Response& response) {
            if (request.uri() == "/raise") throw std::runtime_error("why");
            if (request.uri() == "/slow")
                std::promise<void>().get_future().wait_for(milliseconds(5));
            describe(request, response);
        },
        options);
    {
        HttpPeer peer(server.port());
        EXPECT_EQ(200, peer.exchange(post("/slow", std::string(100000, 'x'))).status);
        EXPECT_EQ(500, peer.exchange(post("/raise")).status);
        EXPECT_EQ(503, HttpPeer(server.port()).receive().status);
        EXPECT_EQ(405, peer.exchange("GET / HTTP/1.1\r\nHost: a\r\n\r\n").status);
    }
    server.stop();
    EXPECT_EQ((std::multiset<std::string>{"127.0.0.1 /slow 200 sized 0 ",
                                          "127.0.0.1 /raise 500 sized 0 why",
                                          "127.0.0.1  503 0 the server has too many connections",
                                          "127.0.0.1  405 sized 1000 method is not POST"}),
              seen);
}

std::string contentOf(std::string const& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

TEST(ServerTrace, HoldsWhatCameAndWentAndWhenAndFailsAlone) {
    std::string const folder = testing::TempDir() + "traces" + std::to_string(::getpid());
    std::filesystem::create_directory(folder);
    ServerOptions options = oneLoop();
    options.traceFolder = folder;
    int complaints = 0;
    options.complain = [&](std::string_view) { ++complaints; };
    RunningServer server(describe, options);
    std::string const sent = post("/a", "x");
    HttpPeer::Answer const answer = HttpPeer(server.port()).exchange(sent);
    std::string const got = answer.head + "\r\n" + answer.body;
    std::string const path = folder + "/connection-000001.trace";
    std::string const in = std::to_string(sent.size());
    std::string const out = std::to_string(got.size());
    while (contentOf(path + ".times").find("\ns ") == std::string::npos) std::this_thread::yield();
    EXPECT_EQ("\n<read[" + in + "]>\n" + sent + "\n<write[" + out + "]>\n" + got, contentOf(path));
    std::string times = contentOf(path + ".times");
    for (char& c : times) c = c >= '0' && c <= '9' ? '0' : c;
    std::string const expected = "# postwire times 0\nr " + std::string(in.size(), '0') +
                                 " 0000000000.000000\ns " + std::string(out.size(), '0') +
                                 " 0000000000.000000\n";
    EXPECT_EQ(expected, times);
    std::filesystem::remove_all(folder);
    for (int i = 0; i < 2; ++i) EXPECT_EQ(200, HttpPeer(server.port()).exchange(sent).status);
    server.stop();
    EXPECT_EQ(1, complaints);
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
    std::string const large = post("/", std::string(200000, 'x'));
    // Whichever body is read last is refused: the second one, sooner or later.
    for (bool isRefused = false; !isRefused;) {
        HttpPeer holds(server.port());
        holds.send(std::string_view(large).substr(0, 190000));
        isRefused = HttpPeer(server.port()).exchange(large).status == 503;
        holds.send(std::string_view(large).substr(190000));
        isRefused = holds.receive().status == 200 && isRefused;
    }
    // An answer may be here before the memory of its request is given back.
    while (HttpPeer(server.port()).exchange(large).status != 200) {
    }
}

TEST(ServerAnswers, NodesWriteOnePieceAndPartsWithLengthAndInChunks) {
    RunningServer server([](Request& request, Response& response) {
        int const chunkSize = request.uri() == "/chunked" ? 4 : 0;
        response.setHeader("X-Y", "1");
        if (!request.message().getHeader("x-parts")) {
            OnePieceHttpMsg& node = response.onePiece(201, "a/b", chunkSize);
            node.write("hello", 5);
            node.write("!", 1);
            return;
        }
        response.multipart(200, chunkSize);
        response.addPart("text/xml", "<1>", "<a/>");
        response.addPart("", "", "x");
    });
    std::string const parts = "X-Parts: 1\r\n";
    HttpPeer peer(server.port());
    HttpPeer::Answer answer = peer.exchange(post("/"));
    EXPECT_EQ(201, answer.status);
    EXPECT_TRUE(answer.says("X-Y: 1") && answer.says("Content-Type: a/b")) << answer.head;
    EXPECT_EQ("hello!", answer.body);
    answer = peer.exchange(post("/", "", parts));
    EXPECT_NE(std::string::npos, answer.head.find("; type=\"text/xml\"\r\n")) << answer.head;
    std::string const boundary = "\r\n--" + answer.body.substr(4, 37);
    EXPECT_EQ(boundary +
                  "\r\nContent-ID: <1>\r\nContent-Length: 4\r\nContent-Type: text/xml\r\n\r\n"
                  "<a/>" +
                  boundary + "\r\nContent-Length: 1\r\n\r\nx" + boundary + "--\r\n",
              answer.body);
    EXPECT_TRUE(peer.exchange(post("/chunked")).says("Transfer-Encoding: chunked"));
    EXPECT_EQ("4\r\nhell\r\n2\r\no!\r\n0\r\n\r\n", peer.rest(21));
    // HTTP/1.0 gets a length.
    HttpPeer old(server.port());
    EXPECT_EQ("hello!", old.exchange("POST /chunked HTTP/1.0\r\n\r\n").body);
}

// Adds up what it gets.
class Counter : public HTTPMsgHandler {
public:
    explicit Counter(bool raises) : m_raises(raises) {}
    void reset() override { text = "reset"; }
    void setURI(char const* uri) override { text += uri; }
    void setStatusCode(HTTPMessage::StatusCode) override {}
    void setStatusMessage(char const*) override {}
    void header(char const* name, HTTPHeader* value) override {
        if (std::string(name) == "x") text.append(" ").append(value->getValue());
    }
    void content(ZULInputStream& is, int) override { content(is); }
    void content(ZULInputStream& is) override {
        if (m_raises) throw 42;
        char block[65536];
        long long size = 0;
        for (int n; (n = is.read(block, sizeof block)) > 0; size += n) {
        }
        text += " " + std::to_string(size);
    }
    void startPart() override { text += " part"; }
    void endMessage() override { text += " end"; }

    std::string text;

private:
    bool m_raises;
};

// The program chooses by the head: the tree for /tree, at most a megabyte; else a handler.
ServerOptions choosing() {
    ServerOptions options = oneLoop();
    options.policy.maxBody = 1000;
    options.bodyBudget = 2 << 20;
    options.chooseBody = [](Request& request) {
        postwire::BodyChoice choice;
        choice.maxBody = request.uri() == "/tree" ? 1 << 20 : 0;
        if (request.uri() == "/tree" || request.uri() == "/") return choice;
        choice.handler = std::make_shared<Counter>(request.uri() == "/raise");
        choice.maxBody = request.uri() == "/small" ? 10 : 3LL << 30;
        return choice;
    };
    return options;
}

void tellBody(Request& request, Response& response) {
    if (auto* const counter = dynamic_cast<Counter*>(request.bodyHandler()))
        return response.send(200, "", counter->text);
    response.send(200, "", std::to_string(request.message().contentSize()));
}

TEST(ServerBodies, ChunksBeyondTheLargestLengthReachTheHandler) {
    RunningServer server(tellBody, choosing());
    HttpPeer peer(server.port());
    peer.send("POST /huge HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n");
    std::string const chunk = "1000000\r\n" + std::string(16 << 20, 'x') + "\r\n";
    for (int i = 0; i < 129; ++i) peer.send(chunk);
    EXPECT_EQ("reset/huge 2164260864 end", peer.exchange("0\r\n\r\n").body);
}

TEST(ServerBodies, GoToTheTreeOrTheHandlerThatTheProgramChose) {
    RunningServer server(tellBody, choosing());
    std::string const parts = "--B\r\nX: 2\r\n\r\nab\r\n--B--\r\n";
    std::string const type = "X: 1\r\nContent-Type: multipart/related; boundary=B\r\n";
    struct {
        std::string wire;
        int status;
        std::string body;
    } const cases[] = {
        {post("/count", std::string(20 << 20, 'x'), "X: a\r\n"), 200, "reset/count a 20971520 end"},
        {post("/count", parts, type), 200, "reset/count 1 part 2 2 end"},
        {post("/count"), 200, "reset/count 0 end"},
        {chunked("hello!"), 200, "6"},
        {post("/tree", std::string(900000, 'x')), 200, "900000"},
        {post("/tree", std::string(90000, 'x')), 200, "90000"},
        {post("/tree", "x"), 200, "1"},
        {post("/small", "0123456789"), 200, "reset/small 10 end"},
        {post("/small", "0123456789x"), 413, ""},
        {post("/tree", std::string(1100000, 'x')), 413, ""},
        {post("/", std::string(1001, 'x')), 413, ""},
        {"POST /count HTTP/1.1\r\nHost: a\r\nContent-Length: 2147483648\r\n\r\n", 413, ""},
        {post("/raise", "x"), 500, ""},
    };
    for (auto const& [wire, status, body] : cases)
        for (std::size_t const step : {wire.size(), std::size_t{61}, std::size_t{7}}) {
            if (wire.size() / step > 30000) continue;
            SCOPED_TRACE(wire.substr(0, 60) + std::to_string(step));
            HttpPeer peer(server.port());
            for (std::size_t at = 0; at < wire.size(); at += step)
                peer.send(std::string_view(wire).substr(at, step));
            HttpPeer::Answer const answer = peer.receive();
            EXPECT_EQ(status, answer.status);
            if (status != 200) continue;
            EXPECT_EQ(body, answer.body);
            EXPECT_EQ(body, peer.exchange(wire).body);
        }
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

TEST(ServerAnswers, StreamWaitsOnceForItsPeerInMemoryAndKeepsItsLength) {
    ServerOptions options = oneLoop();
    options.bodyBudget = 32 << 20;
    std::atomic<bool> written{false};
    RunningServer server(
        [&](Request& request, Response& response) {
            bool const isLarge = request.uri() == "/large";
            std::string const piece(isLarge ? 10000 : 5, 'x');
            std::uint64_t const length = isLarge ? 16000000 : request.uri() == "/long" ? 4 : 6;
            ZULOutputStream& out = response.stream(200, "a/b", length, isLarge ? 3000 : 0);
            for (std::uint64_t sent = 0; sent < length - length % 5; sent += piece.size())
                out.write(piece.data(), static_cast<int>(piece.size()));
            written = written || isLarge;
        },
        options);
    HttpPeer deaf(server.port(), 4096);
    deaf.send(post("/large"));
    while (!written) std::this_thread::yield();
    EXPECT_EQ(500, HttpPeer(server.port()).exchange(post("/short")).status);
    EXPECT_EQ(500,
              HttpPeer(server.port()).exchange(post("/long", std::string(200000, 'x'))).status);
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

TEST(ServerLimits, IdleConnectionsGiveWayWhereDescriptorsRunOut) {
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    std::atomic<int> complaints{0};
    ServerOptions options = oneLoop();
    options.complain = [&](std::string_view) { ++complaints; };
    RunningServer server(describe, options);
    EXPECT_EQ(200, HttpPeer(server.port()).exchange(post("/")).status);
    std::vector<std::unique_ptr<HttpPeer>> idle;
    rlimit few = before;
    few.rlim_cur = std::min<rlim_t>(few.rlim_max, 4096);
    ::setrlimit(RLIMIT_NOFILE, &few);
    // Both ends are this process's: the clients' descriptors are made first.
    for (int i = 0; i < 1040; ++i) idle.push_back(std::make_unique<HttpPeer>());
    int const highest = ::dup(0);
    few.rlim_cur = static_cast<rlim_t>(highest) + 20;
    ::close(highest);
    ::setrlimit(RLIMIT_NOFILE, &few);
    for (auto const& peer : idle) {
        peer->connect(server.port());
        EXPECT_EQ(200, peer->exchange(post("/")).status);
    }
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(1, complaints);
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
            clients.emplace_back([&, i, here = std::make_shared<HttpPeer>(server.port())] {
                HttpPeer& peer = *here;
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
