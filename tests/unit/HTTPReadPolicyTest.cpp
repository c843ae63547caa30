#include <climits>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

#include "support/AllocationFaults.h"
#include "support/EventLog.h"
#include "support/Raised.h"
#include "support/ReaderConnection.h"
#include "support/RowTest.h"

namespace {

HTTPReadPolicy policyOf(std::string const& fields) {
    if (fields.empty()) return HTTPReadPolicy::hardened();
    HTTPReadPolicy p;
    std::istringstream(fields) >> p.boundMessage >> p.partsEndAtBoundary >> p.strictFraming >>
        p.maxLine >> p.maxHead >> p.maxHeaders >> p.maxParts >> p.maxPartHead >> p.maxBody >>
        p.maxChunkFraming >> p.maxChunkFramingRatio;
    return p;
}

std::string chunked(std::string const& body, std::size_t size) {
    ZULMemoryOutputStream coded(1000, 1000);
    ZULChunkedOutputStream encoder(coded, static_cast<int>(size));
    encoder.write(body.data(), static_cast<int>(body.size()));
    encoder.close();
    return {coded.bytes(), static_cast<std::size_t>(coded.length())};
}

std::string withLength(std::string const& head, std::string const& body) {
    return head + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string inChunks(std::string const& head, std::string const& body, std::size_t size) {
    return head + "Transfer-Encoding: chunked\r\n\r\n" + chunked(body, size);
}

constexpr char kPost[] = "POST / HTTP/1.1\r\nHost:\r\n";
constexpr char kMultipart[] =
    "POST / HTTP/1.1\r\nHost:\r\nContent-Type: multipart/x; boundary=B\r\n";

// The bytes that a row stands for: those of a multipart body with a length and in chunks.
std::vector<std::string> inputs(TestCase const& c, bool strict) {
    if (c.has("body"))
        return {withLength(kMultipart, c["body"]), inChunks(kMultipart, c["body"], 1000)};
    if (c.has("chunks"))
        return {std::string(kPost) + "Transfer-Encoding: chunked\r\n\r\n" + c["chunks"]};
    if (!c.has("message")) return {c["request"] + c["response"]};
    return {(strict ? kPost : "POST / HTTP/1.1\r\n") + c["message"]};
}

struct Outcome {
    long code = 0;
    std::string tree;
};

Outcome readBy(HTTPReadPolicy const& policy, std::string const& bytes, int step = kAllAtOnce,
               bool isResponse = false) {
    ReaderConnection c(bytes, step);
    c.reader.setReadPolicy(policy);
    auto const thrown = raised([&] { isResponse ? c.responseTree() : c.requestTree(); });
    if (!thrown) return {0, treeText(c.message)};
    auto const* const error = dynamic_cast<HTTPException*>(thrown.get());
    EXPECT_TRUE(error && error->getMessages().size() == 1U) << textOf(*thrown);
    EXPECT_FALSE(c.reader.keepAlive());
    return {error ? error->getCode() : -1, ""};
}

}  // namespace

TEST_ROWS(HTTPReadPolicy, EndsHostileMessagesInTheirCodesAndReadsTheOthers, "policy_hostile.txt") {
    HTTPReadPolicy const policy = policyOf(c["policy"]);
    bool const isResponse = c.has("response");
    HTTPParser parser;
    parser.setReadPolicy(policy);
    auto const parse = isResponse ? &HTTPParser::parseResponse : &HTTPParser::parseRequest;
    for (std::string const& bytes : inputs(c, policy.strictFraming)) {
        if (c.has("code")) {
            // What is told before the error does not depend on how the bytes come.
            auto const told = [&](int step) {
                std::string const events = parseEvents(parser, parse, bytes, step);
                return events.substr(0, events.find("[left "));
            };
            forEachReadSize([&](int step) {
                EXPECT_EQ(readBy(policy, bytes, step, isResponse).code, c.number("code"));
                EXPECT_EQ(told(step), told(kAllAtOnce));
            });
            continue;
        }
        std::string const start = !c.has("message")      ? ""
                                  : policy.strictFraming ? "[reset][uri /][host: ]"
                                                         : "[reset][uri /]";
        forEachReadSize([&](int step) {
            EXPECT_EQ(parseEvents(parser, parse, bytes, step), start + c["events"]);
        });
    }
}

TEST_ROWS(HTTPReadPolicy, ReadsTheShapesOfStacksAtEverySplitAndNoneOfThemCut, "policy_shapes.txt") {
    SCOPED_TRACE(c["stack"]);
    std::string const head = kPost + ("Content-Type: " + c["type"]) + "\r\n";
    std::string const whole = withLength(head, c["body"]);
    HTTPParser parser;
    parser.setReadPolicy(HTTPReadPolicy::hardened());
    auto const expectEvents = [&](std::string const& bytes, int step) {
        std::string const events = parseEvents(parser, &HTTPParser::parseRequest, bytes, step);
        EXPECT_EQ(events.substr(std::min(events.find("[startMulti"), events.size())), c["events"]);
    };
    for (std::size_t const size : {1U, 7U, 5000U})
        forEachReadSize([&](int step) { expectEvents(inChunks(head, c["body"], size), step); });
    for (std::size_t at = 1; at < whole.size(); ++at) {
        SCOPED_TRACE(at);
        expectEvents(whole, static_cast<int>(at));
        for (int const step : {1, kAllAtOnce})
            EXPECT_NE(readBy(HTTPReadPolicy::hardened(), whole.substr(0, at), step).code, 0);
    }
}

// Behind bytes that look like its beginning, and behind others, which are passed over in leaps.
TEST(HTTPReadPolicy, FindsDelimitersWhereverTheReadAheadEnds) {
    HTTPReadPolicy unbounded;
    unbounded.partsEndAtBoundary = true;
    for (std::size_t const length : {1U, 30U, 70U}) {
        std::string const boundary(length, 'B'), line = "\r\n--" + boundary;
        std::string const head =
            kPost + ("Content-Type: multipart/x; boundary=" + boundary) + "\r\n";
        for (std::string const filler : {"\r\n-", "x", "-x"})
            for (std::size_t at = 4096 - 80; at <= 4096 + 80; ++at) {
                SCOPED_TRACE(filler + std::to_string(at) + line);
                std::string part;
                while (part.size() < at) part += filler;
                part.resize(at);
                std::string const body =
                    line + "\r\n\r\n" + part + line + "--\r\n" + std::string(1000, '.');
                // From the beginning of the level's read-ahead on, and from that of the message's.
                for (std::string const& bytes :
                     {withLength(head, body), inChunks(head, body, 5000), head + "\r\n" + body}) {
                    ReaderConnection c(bytes);
                    bool const bounded = bytes.find("\r\n\r\n") > head.size();
                    c.reader.setReadPolicy(bounded ? HTTPReadPolicy::hardened() : unbounded);
                    c.request();
                    EXPECT_EQ(c.message.getPart(0)->contentBytes(), part);
                }
            }
    }
}

TEST_ROWS(HTTPReadPolicy, TellsOfTheConnectionWithAndWithoutIt, "policy_connection.txt") {
    for (bool const hardened : {false, true}) {
        SCOPED_TRACE(hardened);
        struct Peer {
            FragmentingStream wire;
            std::string body;
            int asked = 0;
        } peer{FragmentingStream(c["head"] + c["sent"]), c["body"]};
        ZULBufferedInputStream buffered(peer.wire, 4096);
        HTTPMessageReader reader(buffered);
        if (hardened) reader.setReadPolicy(HTTPReadPolicy::hardened());
        reader.setContinueCallback(
            [](void* context) {
                Peer& waiting = *static_cast<Peer*>(context);
                waiting.wire.append(waiting.body);
                ++waiting.asked;
            },
            &peer);
        EXPECT_FALSE(reader.keepAlive()) << "nothing was read";
        HTTPMessage message;
        HTTPMessage::StatusCode status;
        std::string text;
        raised([&] {
            c["head"][0] == 'P' ? reader.getRequest(&message, &text)
                                : reader.getResponse(&message, &status, &text);
        });
        EXPECT_EQ(reader.getMinorVersion(), c.number("minor"));
        EXPECT_EQ(reader.keepAlive(), c.number("keep") != 0);
        EXPECT_EQ(peer.asked, c.number("asked"));
        EXPECT_EQ(message.contentSize(), c.number("size"));
    }
}

namespace {

// Asks for all there may be, and asks again where a read failed.
class Patient : public EventLog {
public:
    using EventLog::content;
    void content(ZULInputStream& is) override {
        QORByteBuffer bytes(0, 1);
        EXPECT_EQ(2001, raisedCode([&] { is.read(bytes, -1); }));
        auto const readOn = [&] {
            while (is.read(bytes, INT_MAX) > 0) {
            }
        };
        while (raisedCode(readOn) == kStreamFailure)
            EXPECT_EQ(std::strlen(bytes.str()), bytes.pcount());
        note(bytes.str());
    }
};

}  // namespace

TEST(HTTPReadPolicy, HardenedHasTheLimitsThatAreTold) {
    HTTPReadPolicy const p = HTTPReadPolicy::hardened();
    std::vector<long long> const limits = {
        p.maxLine,     p.maxHead, p.maxHeaders,      p.maxParts,
        p.maxPartHead, p.maxBody, p.maxChunkFraming, p.maxChunkFramingRatio};
    EXPECT_EQ((std::vector<long long>{16384, 65536, 100, 1000, 16384, 64 << 20, 65536, 16}),
              limits);
}

TEST(HTTPReadPolicy, TakesMemoryForPartsInProportionToWhatCame) {
    std::string body;
    for (int part = 0; part < 100; ++part) body += "--B\r\n\r\nx\r\n";
    ReaderConnection c(withLength(kMultipart, body + "--B--"), 1);
    c.reader.setReadPolicy(HTTPReadPolicy::hardened());
    EXPECT_LT(peakHeapOf([&] { c.request(); }), 2 << 20);
}

TEST(HTTPReadPolicy, LosesNoByteOfAPartWhereAReadFails) {
    HTTPReadPolicy policy;
    policy.partsEndAtBoundary = true;
    std::string const part = "a\r\n--Bx\r\n--B -b\r";
    int readOn = 0;
    for (int nth = 1;; ++nth) {
        Patient handler;
        HTTPParser parser;
        parser.setMsgHandler(&handler);
        parser.setReadPolicy(policy);
        FragmentingStream wire(kMultipart + ("\r\n--B\r\n\r\n" + part) + "\r\n--B--\r\n", 1);
        ZULBufferedInputStream buffered(wire, 4096);
        wire.failAtRead(nth);
        long const code = raisedCode([&] { parser.parseRequest(&buffered); });
        if (wire.reads() < nth) break;
        if (code != 0) continue;
        EXPECT_NE(handler.text().find('[' + part + ']'), std::string::npos) << nth;
        ++readOn;
    }
    EXPECT_GT(readOn, static_cast<int>(part.size()));
}

TEST(HTTPReadPolicy, GoesOnAsAMessageBeganThatSetsAnother) {
    for (bool const hardened : {false, true}) {
        ReaderConnection c(inChunks(std::string(kPost) + "Expect: 100-continue\r\n", "abc", 1), 1);
        if (hardened) c.reader.setReadPolicy(HTTPReadPolicy::hardened());
        auto const change = [](void* reader) {
            HTTPReadPolicy policy;
            policy.maxBody = 1;
            static_cast<HTTPMessageReader*>(reader)->setReadPolicy(policy);
        };
        c.reader.setContinueCallback(change, &c.reader);
        c.request();
        EXPECT_EQ(c.message.contentSize(), 3);
        c.wire.append("POST / HTTP/1.1\r\n\r\nabc");
        EXPECT_EQ(raisedCode([&] { c.request(); }), HTTPPolicyException::HTTP_ERR_BODY_TOO_LARGE);
    }
}

TEST(HTTPReadPolicy, ReportsOutOfMemoryAndLeaksNothing) {
    std::string const nested =
        "--B\r\nContent-Type: multipart/x;\r\n "
        "boundary=CC\r\n\r\n--CC\r\n\r\nabc\r\n--CC--\r\n--B--";
    std::string const bytes = inChunks(kMultipart, nested, 9);
    forEachFailingAllocation([&] {
        ReaderConnection c(bytes, 7);
        c.reader.setReadPolicy(HTTPReadPolicy::hardened());
        c.request();
        EXPECT_EQ(c.message.getPart(0)->getPart(0)->contentSize(), 3);
    });
}

TEST_ROWS(HTTPPolicyException, KeepsItsTypeAndTellsItsStatus, "policy_errors.txt") {
    long const code = c.number("code");
    auto const known = static_cast<HTTPPolicyException::PolicyErrorCode>(code);
    EXPECT_EQ(HTTPPolicyException::getHttpStatus(HTTPException(code)), c.number("status"));
    EXPECT_EQ(HTTPPolicyException::getMessageString(known) != nullptr, c.has("text"));
    if (!c.has("text")) return;
    HTTPPolicyException error(known);
    auto const thrown =
        raised([&] { error.hurl(QORFileLocation("test", 1), nullptr, "QOR_THROW"); });
    EXPECT_STREQ(thrown->getThrowableName(), "HTTPPolicyException");
    EXPECT_EQ(textOf(*thrown), c["text"]);
    EXPECT_EQ(backTraceText(*thrown), "QOR_THROW test\n");
}
