#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <netinet/in.h>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULBufferedOutputStream.h"

#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"
#include "support/LoopbackPair.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

sockaddr_in ipAddress(sockaddr_storage const& address) {
    sockaddr_in in;
    std::memcpy(&in, &address, sizeof in);
    return in;
}

}  // namespace

TEST(SoapServerSocketOpen, TakesThePortGivenAgainAfterAClose) {
    int port = 0;
    for (int i = 0; i < 3; ++i) {
        LoopbackPair pair;  // its connection lingers on the port of the server
        EXPECT_LT(0, pair.server.m_boundPort);
        port = pair.server.m_boundPort;
        pair.closeFar();
        pair.server.Close();
        pair.near.Close();
        SoapServerSocket again;
        again.Open(port);
        EXPECT_EQ(port, again.m_boundPort);
        SoapServerSocket second;
        EXPECT_EQ(std::string("1001 ") + std::strerror(EADDRINUSE),
                  socketFailure([&] { second.Open(port); }));
        EXPECT_EQ("socket", heldBy(second));
    }
}

TEST(SoapServerSocketAccept, EndsWhenItsLimitHasPassed) {
    SoapServerSocket server;
    server.Open(0);
    auto const begin = Clock::now();
    EXPECT_EQ(0, server.acceptConnection(250));
    EXPECT_EQ("1006 SOCKET_TIMEOUT", socketFailure([&] { server.AwaitCommunicationAttempt(250); }));
    EXPECT_LE(milliseconds(500), Clock::now() - begin);
    EXPECT_GT(milliseconds(30000), Clock::now() - begin);
}

TEST(SoapServerSocketAccept, WaitsForAClientAndTellsItsAddress) {
    SoapServerSocket server;
    server.Open(0);
    EXPECT_EQ(0, server.m_peerAddress.ss_family);
    int (*const accepts[])(SoapServerSocket&) = {
        [](SoapServerSocket& s) { return s.AwaitCommunicationAttempt(); },
        [](SoapServerSocket& s) { return s.AwaitCommunicationAttempt(0); },
        [](SoapServerSocket& s) { return s.AwaitCommunicationAttempt(-1); },
        [](SoapServerSocket& s) { return s.acceptConnection(0); },
        [](SoapServerSocket& s) { return s.acceptConnection(30000); },
    };
    for (auto const& accept : accepts) {
        SoapSocket client;
        std::thread connecting([&] { client.Open(server.m_boundPort, loopback()); });
        SoapSocket const peer(accept(server));
        connecting.join();
        sockaddr_storage own{};
        socklen_t length = sizeof own;
        ::getsockname(SocketDescriptors::io(client), reinterpret_cast<sockaddr*>(&own), &length);
        EXPECT_EQ(ipAddress(own).sin_port, ipAddress(server.m_peerAddress).sin_port);
        EXPECT_EQ(INADDR_LOOPBACK, ntohl(ipAddress(server.m_peerAddress).sin_addr.s_addr));
    }
}

TEST(SoapServerSocketExchange, CarriesARequestAndItsResponse) {
    LoopbackPair pair;
    std::thread serving([&] {
        SoapSocket connection(std::exchange(pair.far, -1));
        ZULBufferedInputStream in(*connection.getInputStream(), 4096);
        HTTPMessage request;
        std::string uri;
        HTTPMessageReader(in).getRequest(&request, &uri);
        OnePieceHttpMsg answer(*connection.getOutputStream(), 100);
        answer.startResponse(200, uri.c_str());
        answer.write(request.contentBytes(), request.contentSize());
        answer.finish();
    });
    OnePieceHttpMsg request(*pair.near.getOutputStream(), 0);
    std::string const body(100000, 'b');
    request.startRequest("/uri", 0);
    request.write(body.data(), static_cast<int>(body.size()));
    request.finish();
    ZULBufferedInputStream in(*pair.near.getInputStream(), 4096);
    HTTPMessage answer;
    HTTPMessage::StatusCode status{};
    std::string reason;
    HTTPMessageReader(in).getResponse(&answer, &status, &reason);
    serving.join();
    EXPECT_EQ(200, status);
    EXPECT_EQ("/uri", reason);
    ASSERT_EQ(body.size(), static_cast<std::size_t>(answer.contentSize()));
    EXPECT_EQ(0, body.compare(0, body.npos, answer.contentBytes(), body.size()));
}
