#include <algorithm>
#include <memory>
#include <new>
#include <random>

#include <gtest/gtest.h>

#include "foundation/QORThrowable.h"

#include "parser/HTTPMessageReader.h"
#include "support/AllocationFaults.h"
#include "support/CaseFile.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/TreeText.h"

namespace {

constexpr char kNext[] = "POST /next HTTP/1.1\r\nContent-Length: 2\r\n\r\nok";
constexpr char kNested[] =
    "POST /svc?with=a-long-query HTTP/1.1\r\nTransfer-Encoding: chunked\r\n"
    "Content-Type: multipart/related; boundary=a-boundary-of-some-length\r\n\r\n"
    "1d\r\n--a-boundary-of-some-length\r\n\r\n"
    "30\r\nContent-Type: multipart/related; boundary=BB\r\n\r\n\r\n"
    "51\r\n--BB\r\nContent-Length: 3\r\nX-A-Long-Name-For-A-Header: and-a-long-value; "
    "a=b\r\n\r\nabc\r\n"
    "33\r\n\r\n--BB\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n\r\n"
    "a\r\n\r\n--BB--\r\n\r\n"
    "1d\r\n--a-boundary-of-some-length--\r\n"
    "0\r\n\r\n";

struct Connection {
    explicit Connection(std::string const& bytes, int step = kAllAtOnce) : wire(bytes, step) {}

    FragmentingStream wire;
    ZULBufferedInputStream buffered{wire, 4096};
    HTTPMessageReader reader{buffered};
    HTTPMessage message;
    std::string text;

    void request() { reader.getRequest(&message, &text); }
    // What is left becomes errors or messages, until all is read and there is the next message.
    void expectNextMessage() {
        for (int i = 0; raisedCode([&] { request(); }) != 1009 || !wire.rest().empty(); ++i)
            ASSERT_LT(i, 1000);
        wire.append(kNext);
        request();
        EXPECT_EQ(text, "/next");
        EXPECT_EQ(treeText(message), "  content-length: 2\n  body 2 79dcdd47 ok\n");
    }
};

}  // namespace

TEST(HTTPMessageReader, ReadsBackToBackMessagesWithTheReadAheadItWasGiven) {
    forEachReadSize([](int step) {
        FragmentingStream wire(std::string("xPOST /1 HTTP/1.1\r\nA: 1\r\na: 2\r\nSet-Cookie: b\r\n"
                                           "Set-Cookie: c\r\nContent-Length: 1\r\n\r\na"
                                           "HTTP/1.0 500 Not Good\r\nContent-Length: 0\r\n\r\n") +
                                   kNested + kNext,
                               step);
        ZULBufferedInputStream buffered(wire, 4096);
        EXPECT_EQ(buffered.read(), 'x');
        HTTPMessageReader reader(buffered);
        HTTPMessage message;
        message.setHeader("old", "one");
        message.addChild(new HTTPMessage);
        std::string text;
        HTTPMessage::StatusCode status{};
        reader.getRequest(&message, &text);
        EXPECT_EQ(text + '\n' + treeText(message),
                  "/1\n  a: 2\n  content-length: 1\n  set-cookie: b\n  set-cookie: c\n"
                  "  body 1 e8b7be43 a\n");
        reader.getResponse(&message, &status, &text);
        EXPECT_EQ(std::to_string(status) + text, "500Not Good");
        reader.getRequest(&message, &text);
        EXPECT_EQ(message.getPart(0)->getPart(1)->contentSize(), 3);
        EXPECT_STREQ(message.getPart(0)->getBoundary(), "BB");
        reader.getRequest(&message, &text);
        EXPECT_EQ(text, "/next");
    });
}

TEST(HTTPMessageReader, RefusesNullResultsBeforeItReads) {
    Connection c(kNext);
    HTTPMessage::StatusCode status{};
    EXPECT_EQ(failedAssertion([&] { c.reader.getRequest(&c.message, nullptr); }),
              "QOR_ASSERT(uri);");
    EXPECT_EQ(failedAssertion([&] { c.reader.getResponse(&c.message, nullptr, nullptr); }),
              "QOR_ASSERT(status);");
    EXPECT_EQ(failedAssertion([&] { c.reader.getResponse(&c.message, &status, nullptr); }),
              "QOR_ASSERT(status_message);");
    EXPECT_EQ(failedAssertion([&] { c.reader.getRequest(nullptr, &c.text); }),
              "QOR_ASSERT(m_pCurrentMessage);");
    EXPECT_EQ(c.text, "");
}

TEST(HTTPMessageReader, IsUsableAfterHostileMessagesAndStaysInProportionToThem) {
    for (char const* const file : {"messages.txt", "hostile.txt"})
        for (TestCase const& c : loadCases(file)) {
            SCOPED_TRACE(c.where());
            std::string const bytes = c.has("message") ? "POST / HTTP/1.1\r\n" + c["message"]
                                                       : c["request"] + c["response"];
            Connection connection(bytes);
            long const peak = peakHeapOf([&] { raisedCode([&] { connection.request(); }); });
            EXPECT_LT(peak, std::max(1L << 20, 64 * static_cast<long>(bytes.size())));
            connection.expectNextMessage();
        }
}

TEST(HTTPMessageReader, IsUsableAfterAFailingRead) {
    for (int nth = 1;; ++nth) {
        Connection c(kNested, 1);
        c.wire.failAtRead(nth);
        if (raisedCode([&] { c.request(); }) == 0) break;
        c.expectNextMessage();
    }
}

TEST(HTTPMessageReader, ReportsOutOfMemoryAndReadsTheNextMessage) {
    forEachFailingAllocation([] {
        Connection c(kNested);
        bool outOfMemory = false;
        auto const codeOfRequest = [&]() -> long {
            try {
                c.request();
            } catch (QOROutOfMemoryError const&) {
                outOfMemory = true;
            } catch (std::bad_alloc const&) {
                outOfMemory = true;
            } catch (QORException const& e) {
                return e.getCode();
            }
            return 0;
        };
        EXPECT_EQ(codeOfRequest(), 0);
        for (int i = 0; i < 50 && codeOfRequest() != 1009;) ++i;
        c.wire.append(kNext);
        outOfMemory = false;
        codeOfRequest();
        EXPECT_TRUE(outOfMemory || c.text == "/next");
    });
}

namespace {

// Trees as dump writes them and the parser reads them back: multipart messages hold parts only and
// name their boundary.
class RandomTree {
public:
    explicit RandomTree(unsigned seed) : m_random(seed) {}

    int below(int n) { return static_cast<int>(m_random() % static_cast<unsigned>(n)); }
    std::string text(char const* alphabet, int least, int most) {
        std::string const letters = alphabet;
        std::string made;
        for (int n = least + below(most - least + 1); n > 0; --n)
            made += letters[static_cast<std::size_t>(below(static_cast<int>(letters.size())))];
        return made;
    }
    std::string token() { return text("abcXYZ019-_.", 1, 20); }

    void fill(HTTPMessage& message, int levels) {
        for (int n = below(6); n > 0; --n)
            message.setHeader(("X-" + token()).c_str(), value().c_str());
        for (int n = below(3); n > 0; --n) message.setHeader("Set-Cookie", value().c_str());
        if (levels > 1 && below(2) == 0) return fillParts(message, levels);
        std::string body = text("\r\n-aB", 0, 9);
        for (int n = below(2) * below(9000); n > 0; --n) body += static_cast<char>(below(256));
        if (below(4) > 0) message.setContent(body.data(), static_cast<int>(body.size()));
    }

private:
    std::string value() {
        std::string made = token() + text(" :=,/\t()\x80\xff", 0, 9) + token();
        for (int n = below(3); n > 0; --n) made += ";" + token() + "= " + token();
        return made;
    }
    void fillParts(HTTPMessage& message, int levels) {
        std::string const boundary = text("B-='", 0, 2) + token();
        message.setBoundary(boundary.c_str());
        message.setHeader("Content-Type", ("multipart/x; a=b; boundary=" + boundary).c_str());
        for (int n = 1 + below(3); n > 0; --n) {
            auto part = std::make_unique<HTTPMessage>();
            fill(*part, levels - 1);
            message.addChild(part.release());
        }
    }

    std::mt19937 m_random;
};

}  // namespace

TEST(HTTPMessageReader, ReadsBackWhatDumpWrites) {
    SCOPED_TRACE("POSTWIRE_SEED=" + std::to_string(testSeed()));
    RandomTree tree(testSeed());
    for (int i = 0; i < 500 && !::testing::Test::HasFailure(); ++i) {
        HTTPMessage written;
        tree.fill(written, 3);
        QORByteBuffer bytes(256, 256);
        bytes << "POST /" << tree.token().c_str() << " HTTP/1.1\r\n";
        written.dump(bytes, tree.below(2) * (1 + tree.below(3000)));
        Connection c(std::string(bytes.str(), bytes.pcount()), kReadSizes[tree.below(7)]);
        c.request();
        EXPECT_EQ(treeText(c.message), treeText(written));
        EXPECT_EQ(c.wire.rest(), "");
    }
}
