#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "service/HttpPeer.h"
#include "service/RunningServer.h"
#include "support/CaseFile.h"

namespace {

using postwire::Request;
using postwire::Response;
using postwire::ServerOptions;

// "/uri=body" of an answer, with what it says of the connection behind the URI; else the fault.
std::string textOf(HttpPeer::Answer const& answer) {
    if (answer.status == 200) {
        std::size_t const end = answer.body.find('=');
        char const* const mark = answer.says("Connection: close")        ? "*"
                                 : answer.says("Connection: keep-alive") ? "+"
                                                                         : "";
        return answer.body.substr(0, end) + mark + answer.body.substr(end);
    }
    EXPECT_TRUE(answer.says("Connection: close"));
    return std::to_string(answer.status) + " " + answer.body;
}

// Limits alone, and a connection for each request.
ServerOptions lenient() {
    ServerOptions options = oneLoop();
    options.policy = HTTPReadPolicy();
    options.policy.maxLine = 16384;
    options.policy.maxHeaders = 100;
    options.keepAlive = false;
    return options;
}

class ServerConversation : public testing::TestWithParam<TestCase> {
protected:
    // Every answer begins as the row says, and there is none behind the last.
    static void check(ServerOptions options, std::string const& wire, std::string const& expected) {
        options.policy.maxBody = 1000;
        RunningServer server(
            [](Request& request, Response& response) {
                std::string text = std::string(request.uri()) + "=";
                HTTPMessage& message = request.message();
                if (message.contentSize() > 0)
                    text.append(message.contentBytes(), std::size_t(message.contentSize()));
                response.send(200, "text/plain", text);
            },
            options);
        for (std::size_t const step : {wire.size(), std::size_t{3}, std::size_t{1}}) {
            if (step < wire.size() && wire.size() > 400) continue;
            HttpPeer peer(server.port());
            for (std::size_t at = 0; at < wire.size(); at += step)
                peer.send(std::string_view(wire).substr(at, step));
            peer.finish();
            std::string got;
            for (HttpPeer::Answer answer; (answer = peer.receive()).status != 0;)
                got.append(got.empty() ? "" : "; ").append(textOf(answer));
            EXPECT_EQ(expected, got.substr(0, expected.size())) << step;
            EXPECT_EQ(std::count(expected.begin(), expected.end(), ';'),
                      std::count(got.begin(), got.end(), ';'));
        }
    }
};

TEST_P(ServerConversation, IsAnsweredUpToItsEndHoweverItsBytesArrive) {
    TestCase const& c = GetParam();
    SCOPED_TRACE(c.where());
    std::string const wire =
        c.has("last") ? c["last"] : c["sent"] + "POST /next HTTP/1.0\r\nHost: h\r\n\r\n";
    check(oneLoop(), wire, c["answers"]);
    check(lenient(), wire, c["lenient"]);
}

INSTANTIATE_TEST_SUITE_P(Rows, ServerConversation,
                         testing::ValuesIn(loadCases("server_conversations.txt")),
                         [](auto const& row) { return "L" + std::to_string(row.param.line()); });

}  // namespace
