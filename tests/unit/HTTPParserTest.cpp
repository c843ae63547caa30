#include <algorithm>

#include <gtest/gtest.h>

#include "foundation/ZULBufferedInputStream.h"

#include "parser/HTTPParser.h"
#include "support/EventLog.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/RowTest.h"

namespace {

struct Parsing {
    explicit Parsing(std::string const& bytes, HTTPMsgHandler* handler) : wire(bytes) {
        parser.setMsgHandler(handler);
    }
    FragmentingStream wire;
    ZULBufferedInputStream stream{wire, 4096};
    HTTPParser parser;
};

// Takes one byte of each body.
class Sipping : public EventLog {
public:
    using EventLog::content;
    void content(ZULInputStream& is) override { note(std::to_string(is.read())); }
};

}  // namespace

// One parser for all read sizes: each parse starts clean, whatever became of the one before.
TEST_ROWS(HTTPParserMessages, BecomeTheirEventsAtEveryReadSize, "messages.txt", "hostile.txt") {
    HTTPParser parser;
    bool const isResponse = c.has("response");
    auto const parse = isResponse ? &HTTPParser::parseResponse : &HTTPParser::parseRequest;
    std::string input = c[isResponse ? "response" : "request"], events = c["events"];
    if (c.has("message")) {
        input = "POST / HTTP/1.1\r\n" + c["message"];
        events = "[reset][uri /]" + events;
    }
    forEachReadSize([&](int step) { EXPECT_EQ(parseEvents(parser, parse, input, step), events); });
}

TEST_ROWS(HTTPParserHandler, ErrorGetsAnEntryForEachLevelWhoseBodyItPassed, "handler_errors.txt") {
    EventLog log;
    log.failAt(c["event"]);
    Parsing p("POST / HTTP/1.1\r\n" + c["message"], &log);
    std::string const trace = raisedBackTrace([&] { p.parser.parseRequest(&p.stream); });
    EXPECT_EQ(std::count(trace.begin(), trace.end(), '\n'), c.number("entries")) << trace;
}

TEST(HTTPParserHandler, MayLeaveBytesOfAChunkedBodyUnread) {
    Sipping log;
    Parsing p("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\nnext",
              &log);
    p.parser.parseRequest(&p.stream);
    EXPECT_EQ(p.stream.read(), 'n');
}

TEST(HTTPParser, RefusesAMissingStreamOrHandler) {
    using P = HTTPParser;
    HTTPReadPolicy limited;
    limited.maxBody = 1;
    for (HTTPReadPolicy const& policy : {HTTPReadPolicy(), limited, HTTPReadPolicy::hardened()}) {
        EventLog log;
        Parsing p("A: 1\r\n\r\n", nullptr);
        p.parser.setReadPolicy(policy);
        QORByteBuffer line(16, 16);
        for (auto const op :
             {&P::parseRequest, &P::parseResponse, &P::processHeaders, &P::processEntities})
            EXPECT_EQ(raisedText([&] { (p.parser.*op)(nullptr); }), "QOR_ASSERT(is);");
        for (auto const op : {&P::parseRequest, &P::parseResponse, &P::processEntities,
                              &P::processPart, &P::processHeaders})
            EXPECT_EQ(raisedText([&] { (p.parser.*op)(&p.stream); }), "QOR_ASSERT(m_pHandler);");
        for (auto const op : {&P::validateRequestLine, &P::validateResponseLine, &P::processHeader})
            EXPECT_EQ(raisedText([&] { (p.parser.*op)(line); }), "QOR_ASSERT(m_pHandler);");
        p.parser.setMsgHandler(&log);
        EXPECT_EQ(raisedText([&] { p.parser.processPart(nullptr); }), "QOR_ASSERT(is);");
    }
}

TEST(HTTPParser, ReadsEachStepByThePolicyLastSetWithLimitsOfItsOwn) {
    EventLog log;
    std::string heads = "Content-Type: multipart/x; boundary=B\r\n\r\n";
    for (int i = 0; i < 6000; ++i) heads += "A: 12345678\r\n\r\n";
    Parsing p(heads + "\r\na\r\n--B\r\n", &log);
    p.parser.setReadPolicy(HTTPReadPolicy::hardened());
    for (int i = 0; i <= 6000; ++i) p.parser.processHeaders(&p.stream);
    log.clear();
    p.parser.processPart(&p.stream);
    EXPECT_EQ(log.text(), "[startPart][content]a[endPart]");
    QORByteBuffer line(64, 64);
    line << "Content-Type: text/xml";
    for (int i = 0; i < 2; ++i) p.parser.processHeader(line);
    line << '\x01';
    EXPECT_EQ(raisedCode([&] { p.parser.processHeader(line); }),
              HTTPPolicyException::HTTP_ERR_CONTROL_CHARACTER);
}

TEST(HTTPParser, ReadsAHeaderBlockABodyAndLinesOnTheirOwn) {
    EventLog log;
    Parsing p("A: 1\r\nContent-Length: 2\r\n\r\nabc", &log);
    p.parser.processHeaders(&p.stream);
    p.parser.processEntities(&p.stream);
    QORByteBuffer line(16, 16);
    line << "B: 2";
    p.parser.processHeader(line);
    EXPECT_STREQ(line.str(), "B: 2");
    line.reset();
    line << "HTTP/1.1 200 OK";
    p.parser.validateResponseLine(line);
    EXPECT_EQ(log.text(), "[a: 1][content-length: 2][content 2]ab[b: 2][status 200][reason OK]");
    EXPECT_STREQ(line.str(), "HTTP/1.1 200 OK");
}
