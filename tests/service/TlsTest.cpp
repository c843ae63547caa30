#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "service/Certificates.h"
#include "service/Client.h"
#include "service/CuttingRelay.h"
#include "service/HttpPeer.h"
#include "service/ScriptedServer.h"
#include "service/Server.h"
#include "support/CaseFile.h"

namespace {

using postwire::Client;
using postwire::ClientError;
using postwire::ClientOptions;
using postwire::TlsContext;
using std::chrono::milliseconds;

class TlsServer {
public:
    explicit TlsServer(TlsContext const& tls) : m_server(options(tls)) {
        m_thread = std::thread([this] {
            m_server.run([](postwire::Request& request, postwire::Response& response) {
                std::string text = request.tlsVersion();
                if (!request.clientCertificate().empty()) text += " " + request.clientCertificate();
                HTTPMessage& message = request.message();
                if (message.contentSize() > 1000) text.assign(message.contentBytes(), 5000000);
                response.send(200, "text/plain", text);
            });
        });
    }
    ~TlsServer() {
        m_server.stop();
        m_thread.join();
    }
    [[nodiscard]] int port() const { return m_server.port(); }
    [[nodiscard]] std::string authority(std::string const& host) const {
        return host + ":" + std::to_string(m_server.port());
    }

private:
    static postwire::ServerOptions options(TlsContext const& tls) {
        postwire::ServerOptions options;
        options.headLimit = milliseconds(500);
        options.tls = tls;
        return options;
    }

    postwire::Server m_server;
    std::thread m_thread;
};

class TlsExchange : public testing::TestWithParam<TestCase> {};

TEST_P(TlsExchange, EndsAsItShould) {
    TestCase const& row = GetParam();
    std::string const& words = row["client"];
    auto const says = [&](char const* word) { return words.find(word) != std::string::npos; };
    TlsContext::Server files = certificates().server(row["certificate"]);
    if (says("asks")) files.clientAuthorities = certificates().path("ca.pem");
    TlsServer const server(TlsContext::server(files));
    TlsContext::Client ours;
    if (says("roots")) ours.authorities = certificates().path("ca.pem");
    if (says(" client")) ours.certificate = certificates().path("client.pem");
    if (says(" client")) ours.key = certificates().path("client.key");
    ours.verifies = !says("insecure");
    Client client(ClientOptions(), TlsContext::client(ours));
    std::string const url =
        (says("clear") ? "http://" : "https://") + server.authority(row["host"]);
    std::string outcome;
    for (int i = 0; i < 2; ++i) {  // the second one over a kept connection, where there is one
        try {
            auto answer = client.post(url, "text/plain", "a");
            outcome = std::to_string(answer.status()) + " " + answer.body();
        } catch (ClientError const& e) {
            static char const* const kSent[] = {" nothing", " something", " all"};
            outcome = (e.code() == ClientError::Code::tls ? "tls" : "receive") +
                      std::string(kSent[static_cast<int>(e.sent())]) + ": " + e.what();
            std::size_t const detail = outcome.find("127.0.0.1: ");
            if (detail != std::string::npos)
                outcome.replace(outcome.find("no TLS"), detail + 11 - outcome.find("no TLS"), "");
        }
        EXPECT_EQ(outcome.substr(0, row["ends"].size()), row["ends"]) << outcome;
    }
}

std::string nameOfRow(testing::TestParamInfo<TestCase> const& info) {
    return "line_" + std::to_string(info.param.line());
}
INSTANTIATE_TEST_SUITE_P(Rows, TlsExchange, testing::ValuesIn(loadCases("tls_exchanges.txt")),
                         nameOfRow);

TEST(TlsTransfer, LargeBodiesArriveWholeBothWays) {
    TlsServer const server(TlsContext::server(certificates().server("good")));
    Client client(ClientOptions(), certificates().trusting());
    std::string body(5000000, 'x');
    for (std::size_t i = 0; i < body.size(); i += 997) body[i] = static_cast<char>('a' + i % 26);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(client.post("https://" + server.authority("localhost"), "", body).body() ==
                    body);
}

TEST(TlsHandshake, UnfinishedOneHoldsUpNobodyAndIsCutOff) {
    TlsServer const server(TlsContext::server(certificates().server("good")));
    HttpPeer silent(server.port()), stuck(server.port()), clear(server.port());
    stuck.send(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc", 9));
    Client client(ClientOptions(), certificates().trusting());
    EXPECT_TRUE(client.post("https://" + server.authority("localhost"), "", "a").isGood());
    clear.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(clear.receive().status, 0);
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(stuck.isClosed());
}

TEST(TlsHandshake, CutAtAnyByteIsAnErrorOfThatConnectionAlone) {
    TlsServer const server(TlsContext::server(certificates().server("good")));
    CuttingRelay relay(server.port());
    std::string const url = "https://127.0.0.1:" + std::to_string(relay.port());
    std::size_t size[2] = {SIZE_MAX, SIZE_MAX};
    auto const post = [&] {  // with a handshake of its own
        Client client(ClientOptions(), certificates().trusting());
        try {
            EXPECT_EQ(client.post(url, "", "a").body(), "TLSv1.3");
            for (int side = 0; side < 2; ++side) size[side] = relay.passed(side);
            return true;
        } catch (ClientError const& e) {
            EXPECT_TRUE(e.code() != ClientError::Code::tls ||
                        e.sent() == ClientError::Sent::nothing);
            return false;
        }
    };
    ASSERT_TRUE(post());
    ASSERT_GT(size[0] + size[1], 1000U);
    for (int side = 0; side < 2; ++side) {
        for (std::size_t after = 0; after + 8 < size[side]; ++after) {
            relay.cut(side, after);
            EXPECT_FALSE(post()) << side << " " << after;
        }
        relay.cut(side, SIZE_MAX);
        EXPECT_TRUE(post());
    }
}

TEST(TlsSocket, WriteToAPeerThatHasGoneRaisesAnErrorAndNoSignal) {
    ASSERT_EQ(std::signal(SIGPIPE, SIG_DFL), SIG_DFL);
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    postwire::TlsSocket ours(TlsContext::server(certificates().server("good")), ends[0]);
    std::thread peer([&] {  // has read all that was said to it when it goes
        postwire::TlsSocket theirs(certificates().trusting(), "localhost", ends[1]);
        EXPECT_EQ(theirs.getInputStream()->read(), 'a');
    });
    ours.getOutputStream()->write("a", 1);
    peer.join();
    EXPECT_EQ(ours.getInputStream()->read(), -1);
    try {
        ours.getOutputStream()->write("a", 1);
        ADD_FAILURE();
    } catch (SoapSocketException& e) {
        EXPECT_EQ(e.systemError(), EPIPE);
    }
}

TEST(TlsContext, ReloadedCertificateIsForConnectionsToCome) {
    namespace fs = std::filesystem;
    auto const copy = [](std::string const& name) {
        for (char const* const kind : {".pem", ".key"})
            fs::copy_file(certificates().path(name + kind),
                          certificates().path("live" + std::string(kind)),
                          fs::copy_options::overwrite_existing);
    };
    copy("good");
    TlsContext tls = TlsContext::server(certificates().server("live"));
    TlsServer const server(tls);
    Client kept(ClientOptions(), certificates().trusting()),
        fresh(ClientOptions(), certificates().trusting());
    std::string const url = "https://" + server.authority("127.0.0.1");
    EXPECT_TRUE(kept.post(url, "", "a").isGood());
    copy("other");
    tls.reload();
    EXPECT_TRUE(kept.post(url, "", "a").isGood());
    EXPECT_THROW(fresh.post(url, "", "a"), ClientError);
    fs::remove(certificates().path("live.key"));
    EXPECT_THROW(tls.reload(), postwire::ServiceError);
    EXPECT_TRUE(kept.post(url, "", "a").isGood());
}

}  // namespace
