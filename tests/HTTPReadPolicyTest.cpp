#include <algorithm>
#include <map>
#include <sstream>

#include <gtest/gtest.h>

#include "foundation/ZULBufferedInputStream.h"

#include "parser/HTTPMessageReader.h"
#include "support/AllocationFaults.h"
#include "support/CaseFile.h"
#include "support/EventLog.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/TreeText.h"

namespace {

HTTPReadPolicy policyNamed(std::string const& text) {
    if (text.empty() || text == "hardened") return HTTPReadPolicy::hardened();
    HTTPReadPolicy policy;
    std::map<std::string, bool*> const flags{{"boundMessage", &policy.boundMessage},
                                             {"partsEndAtBoundary", &policy.partsEndAtBoundary},
                                             {"strictFraming", &policy.strictFraming}};
    std::map<std::string, int*> const limits{
        {"maxLine", &policy.maxLine},
        {"maxHead", &policy.maxHead},
        {"maxHeaders", &policy.maxHeaders},
        {"maxParts", &policy.maxParts},
        {"maxPartHead", &policy.maxPartHead},
        {"maxBody", &policy.maxBody},
        {"maxChunkFraming", &policy.maxChunkFraming},
        {"maxChunkFramingRatio", &policy.maxChunkFramingRatio}};
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        std::size_t const equals = word.find('=');
        if (equals == std::string::npos)
            *flags.at(word) = true;
        else
            *limits.at(word.substr(0, equals)) = std::stoi(word.substr(equals + 1));
    }
    return policy;
}

std::string chunked(std::string const& body, std::size_t size) {
    std::string coded;
    for (std::size_t at = 0; at < body.size(); at += size) {
        QORByteBuffer digits(16, 16);
        digits.setHexRadix(1);
        std::string const data = body.substr(at, size);
        coded += (digits << static_cast<int>(data.size())).str() + ("\r\n" + data + "\r\n");
    }
    return coded + "0\r\n\r\n";
}

std::string withLength(std::string const& head, std::string const& body) {
    return head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string inChunks(std::string const& head, std::string const& body, std::size_t size) {
    return head + "Transfer-Encoding: chunked\r\n\r\n" + chunked(body, size);
}

constexpr char kPost[] = "POST / HTTP/1.1\r\n";
constexpr char kMultipart[] = "POST / HTTP/1.1\r\nContent-Type: multipart/x; boundary=B\r\n";

// The bytes that a row stands for: those of a multipart body with a length and in chunks.
std::vector<std::string> inputs(TestCase const& c) {
    if (c.has("body"))
        return {withLength(kMultipart, c["body"]), inChunks(kMultipart, c["body"], 1000)};
    if (c.has("chunks"))
        return {std::string(kPost) + "Transfer-Encoding: chunked\r\n\r\n" + c["chunks"]};
    return {c.has("message") ? kPost + c["message"] : c["request"] + c["response"]};
}

struct Outcome {
    long code = 0;
    std::string tree, left;
};

Outcome readBy(HTTPReadPolicy const& policy, std::string const& bytes, int step,
               bool isResponse = false) {
    FragmentingStream wire(bytes, step);
    ZULBufferedInputStream buffered(wire, 4096);
    HTTPMessageReader reader(buffered);
    reader.setReadPolicy(policy);
    HTTPMessage message;
    std::string text;
    HTTPMessage::StatusCode status{};
    Outcome outcome;
    auto const error = raised([&] {
        isResponse ? reader.getResponse(&message, &status, &text)
                   : reader.getRequest(&message, &text);
    });
    EXPECT_TRUE(!error || dynamic_cast<HTTPException*>(error.get())) << textOf(*error);
    if (auto const* const e = dynamic_cast<HTTPException*>(error.get())) {
        outcome.code = e->getCode();
        EXPECT_EQ(e->getMessages().size(), 1U);
        EXPECT_FALSE(reader.keepAlive());
        EXPECT_NE(HTTPPolicyException::getHttpStatus(*e), 500);
    } else {
        outcome.tree = treeText(message);
        outcome.left = wire.rest();
    }
    return outcome;
}

}  // namespace

TEST(HTTPReadPolicy, EndsHostileMessagesInTheirCodesAndReadsTheOthers) {
    for (TestCase const& c : loadCases("policy_hostile.txt")) {
        SCOPED_TRACE(c.where());
        HTTPReadPolicy const policy = policyNamed(c["policy"]);
        bool const isResponse = c.has("response");
        for (std::string const& bytes : inputs(c)) {
            if (c.has("code")) {
                forEachReadSize([&](int step) {
                    EXPECT_EQ(readBy(policy, bytes, step, isResponse).code, c.number("code"));
                });
                continue;
            }
            HTTPParser parser;
            parser.setReadPolicy(policy);
            auto const parse = isResponse ? &HTTPParser::parseResponse : &HTTPParser::parseRequest;
            std::string const start = isResponse ? "" : "[reset][uri /]";
            forEachReadSize([&](int step) {
                EXPECT_EQ(parseEvents(parser, parse, bytes, step), start + c["events"]);
            });
        }
    }
}
