#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "service/Client.h"
#include "service/HttpPeer.h"
#include "service/Server.h"
#include "support/CaseFile.h"

namespace {

using postwire::Client;
using postwire::ClientError;
using postwire::ClientOptions;
using postwire::TlsContext;
using std::chrono::milliseconds;

// Made once for all tests of this run, and left for no one.
class Certificates {
public:
    Certificates() : m_folder("/tmp/postwire-tls-XXXXXX") {
        if (!::mkdtemp(m_folder.data())) std::abort();
        std::string const command =
            "sh " POSTWIRE_TEST_DATA "/../support/certificates.sh " + m_folder + " 2>/dev/null";
        if (std::system(command.c_str()) != 0) std::abort();
    }
    ~Certificates() { std::filesystem::remove_all(m_folder); }
    [[nodiscard]] std::string path(std::string const& file) const { return m_folder + "/" + file; }
    [[nodiscard]] TlsContext::Server server(std::string const& name) const {
        return {path(name + ".pem"), path(name + ".key"), {}};
    }

private:
    std::string m_folder;
};

Certificates const& certificates() {
    static Certificates const kCertificates;
    return kCertificates;
}

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

TlsContext trusting() { return TlsContext::client({certificates().path("ca.pem"), {}, {}, true}); }

TEST(TlsTransfer, LargeBodiesArriveWholeBothWays) {
    TlsServer const server(TlsContext::server(certificates().server("good")));
    Client client(ClientOptions(), trusting());
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
    Client client(ClientOptions(), trusting());
    EXPECT_TRUE(client.post("https://" + server.authority("localhost"), "", "a").isGood());
    clear.send("POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(clear.receive().status, 0);
    EXPECT_TRUE(silent.isClosed());
    EXPECT_TRUE(stuck.isClosed());
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
    Client kept(ClientOptions(), trusting()), fresh(ClientOptions(), trusting());
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
