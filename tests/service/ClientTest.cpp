#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/Certificates.h"
#include "service/Client.h"
#include "service/HttpPeer.h"
#include "service/ScriptedServer.h"
#include "service/Server.h"
#include "support/CaseFile.h"

namespace {

using postwire::Answer;
using postwire::Client;
using postwire::ClientError;
using postwire::ClientOptions;
using postwire::OutgoingBody;
using postwire::PostOptions;
using std::chrono::milliseconds;

std::string nameOf(ClientError const& e) {
    static char const* const kCodes[] = {"",          "usage",     "resolve", "connect",
                                         "tls",       "send",      "receive", "time",
                                         "cancelled", "malformed", "status"};
    static char const* const kSent[] = {" nothing", " something", " all"};
    return std::string(kCodes[static_cast<int>(e.code())]) + kSent[static_cast<int>(e.sent())];
}

// What a call comes to: status and body, or code and how far it got.
template <class Call>
std::string outcomeOf(Call const& call) try {
    Answer answer = call();
    std::string const body = answer.body();
    return std::to_string(answer.status()) + (body.empty() ? "" : " " + body);
} catch (ClientError const& e) {
    return nameOf(e);
}

OutgoingBody bodyOf(std::size_t size, bool isChunked, std::size_t written) {
    OutgoingBody body;
    body.type = "text/xml";
    body.isRepeatable = true;
    if (!isChunked) body.size = size;
    body.write = [written](ZULOutputStream& out) {
        std::string const block(50000, 'x');
        for (std::size_t left = written; left > 0; left -= std::min(left, block.size()))
            out.write(block.data(), static_cast<int>(std::min(left, block.size())));
    };
    return body;
}

class ClientExchange : public testing::TestWithParam<std::tuple<TestCase, bool>> {};

TEST_P(ClientExchange, EndsAsItShould) {
    auto const& [row, isTls] = GetParam();
    std::string const& calls = row["calls"];
    auto const says = [&](char const* word) { return calls.find(word) != std::string::npos; };
    ScriptedServer::Tls tls;
    if (isTls) tls = postwire::TlsContext::server(certificates().server("good"));
    ScriptedServer server(row["does"], tls);
    ClientOptions options;
    options.continueAbove = says("asks") ? 10 : 100000000;
    options.continueLimit = says("asks") ? std::chrono::seconds(20) : milliseconds(10);
    Client client(options, certificates().trusting());
    postwire::Cancellation cancellation;
    PostOptions post;
    post.repeatable = says("repeatable");
    post.raiseForStatus = says("status");
    post.cancellation = &cancellation;
    if (says("limited")) post.limit = milliseconds(500);
    if (says("injected")) post.fields = {{"X", "a\r\nb"}};
    std::size_t const size = says("large") ? 20000000 : 100;
    OutgoingBody const body = bodyOf(size, says("chunked"), says("short") ? 99 : size);
    std::thread canceller;
    if (says("cancelled")) canceller = std::thread([&] { cancellation.cancel(); });
    std::string last;
    for (int i = 0; i < std::stoi(calls); ++i) {
        // A connection that the server is about to close is no row's matter.
        while (i > 0 && !server.isWaiting()) std::this_thread::yield();
        last = outcomeOf([&] { return client.post(server.url(), body, post); });
    }
    if (canceller.joinable()) canceller.join();
    // Where it is cancelled before it began.
    if (says("cancelled") && last == "cancelled nothing") last = "cancelled all";
    EXPECT_EQ(last, row[isTls && row.has("within TLS") ? "within TLS" : "ends"]);
}

std::string nameOfRow(testing::TestParamInfo<std::tuple<TestCase, bool>> const& row) {
    return "line_" + std::to_string(std::get<0>(row.param).line()) +
           (std::get<1>(row.param) ? "_tls" : "");
}
INSTANTIATE_TEST_SUITE_P(Rows, ClientExchange,
                         testing::Combine(testing::ValuesIn(loadCases("client_exchanges.txt")),
                                          testing::Bool()),
                         nameOfRow);

// A socket that listens and takes no connection.
int deafPort(std::vector<int>& sockets) {
    int port = 0;
    sockets.push_back(listenOnLoopback(port, 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ::getsockname(sockets[0], any, &size);
    for (int i = 0; i < 8; ++i) {  // its backlog is full
        sockets.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
        ::connect(sockets.back(), any, size);
    }
    return port;
}

TEST(ClientConnecting, AddressThatDoesNotAnswerHoldsUpNeitherTheNextNorTheCaller) {
    std::vector<int> sockets;
    int const port = deafPort(sockets);
    std::string const url = "http://name.example:" + std::to_string(port);
    ClientOptions options;
    options.connectLimit = milliseconds(200);
    options.resolve = [](std::string const&) { return std::vector<std::string>{"127.0.0.1"}; };
    EXPECT_EQ(outcomeOf([&] { return Client(options).post(url, "", "a"); }), "time nothing");
    postwire::ServerOptions serving;
    serving.address = "127.0.0.2";
    serving.port = port;
    postwire::Server server(serving);
    std::thread running([&] { server.run([](auto&, auto& to) { to.send(200, "", "ok"); }); });
    options.connectLimit = std::chrono::seconds(20);
    options.resolve = [](std::string const&) {
        return std::vector<std::string>{"127.0.0.1", "::1", "127.0.0.2"};
    };
    EXPECT_EQ(outcomeOf([&] { return Client(options).post(url, "", "a"); }), "200 ok");
    server.stop();
    running.join();
    for (int const socket : sockets) ::close(socket);
    EXPECT_EQ(outcomeOf([&] { return Client(options).post(url, "", "a"); }), "connect nothing");
}

TEST(ClientConnecting, WhatIsNoUrlIsRefused) {
    ClientOptions options;
    options.resolve = [](std::string const&) { return std::vector<std::string>(); };
    Client client(options);
    for (char const* url : {"http://h:1x", "http://h:1x/a", "http://h:0", "http://h:65536",
                            "http:///a", "http://a b", "http:h", "//h", "ftp://h", "h", ""})
        EXPECT_EQ(outcomeOf([&] { return client.post(url, "", "a"); }), "usage nothing") << url;
    for (char const* url : {"http://h:", "http://h?q", "https://u:p@h:1/a"})
        EXPECT_EQ(outcomeOf([&] { return client.post(url, "", "a"); }), "resolve nothing") << url;
}

TEST(ClientConnecting, ConnectionsAreKeptForSeveralThreadsWithinTheLimit) {
    std::mutex mutex;
    std::set<int> peers;
    postwire::Server server(0);
    std::thread running([&] {
        server.run([&](postwire::Request& request, postwire::Response& response) {
            std::lock_guard<std::mutex> const lock(mutex);
            peers.insert(request.peerPort());
            response.send(200, "", "ok");
        });
    });
    Client client;
    std::vector<std::thread> threads;
    std::string const url = "http://[::1]:" + std::to_string(server.port()) + "/x";
    std::atomic<int> good{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int j = 0; j < 50; ++j) good += client.post(url, "text/xml", "<a/>").isGood();
        });
    for (std::thread& thread : threads) thread.join();
    server.stop();
    running.join();
    EXPECT_EQ(good, 200);
    EXPECT_LE(peers.size(), 4U);
}

}  // namespace
