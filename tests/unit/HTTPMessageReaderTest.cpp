#include <algorithm>
#include <memory>
#include <new>

#include <gtest/gtest.h>

#include "foundation/QORThrowable.h"

#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/ReaderConnection.h"
#include "support/RowTest.h"

namespace {

constexpr char kNested[] =
    "POST /svc?with=a-long-query HTTP/1.1\r\nTransfer-Encoding: chunked\r\n"
    "Content-Type: multipart/related; boundary=a-boundary-of-some-length\r\n\r\n"
    "db\r\n--a-boundary-of-some-length\r\nContent-Type: multipart/related; boundary=BB\r\n\r\n"
    "--BB\r\nContent-Length: 3\r\nX-A-Long-Name-For-A-Header: and-a-long-value; a=b\r\n\r\nabc\r\n"
    "--BB\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n\r\n--BB--\r\n\r\n"
    "1d\r\n--a-boundary-of-some-length--\r\n0\r\n\r\n";

// What is left becomes errors or messages, until all is read and there is the next message.
void expectNextRequest(ReaderConnection& c) {
    for (int i = 0; raisedCode([&] { c.request(); }) != 1009 || !c.wire.rest().empty(); ++i)
        ASSERT_LT(i, 1000);
    c.expectNextRequest();
}

}  // namespace

TEST(HTTPMessageReader, GoesOnWithTheReadAheadItWasGiven) {
    ReaderConnection c("xPOST /1 HTTP/1.1\r\n\r\n");
    EXPECT_EQ(c.buffered.read(), 'x');
    HTTPMessageReader(c.buffered).getRequest(&c.message, &c.text);
    EXPECT_EQ(c.text, "/1");
}

TEST(HTTPMessageReader, RefusesNullResultsBeforeItReads) {
    ReaderConnection c(kNested);
    HTTPMessageReader& r = c.reader;
    HTTPMessage* const m = &c.message;
    EXPECT_EQ("QOR_ASSERT(uri);", raisedText([&] { r.getRequest(m, nullptr); }));
    EXPECT_EQ("QOR_ASSERT(status);", raisedText([&] { r.getResponse(m, nullptr, nullptr); }));
    EXPECT_EQ("QOR_ASSERT(status_message);",
              raisedText([&] { r.getResponse(m, &c.status, nullptr); }));
    EXPECT_EQ("QOR_ASSERT(m_pCurrentMessage);",
              raisedText([&] { r.getRequest(nullptr, &c.text); }));
    EXPECT_EQ(c.text, "");
}

TEST_ROWS(HTTPMessageReader, IsUsableAfterHostileMessagesAndStaysInProportionToThem, "messages.txt",
          "hostile.txt") {
    c.skip("events");
    std::string const bytes =
        c.has("message") ? "POST / HTTP/1.1\r\n" + c["message"] : c["request"] + c["response"];
    ReaderConnection connection(bytes);
    long const peak = peakHeapOf([&] { raisedCode([&] { connection.request(); }); });
    EXPECT_LT(peak, std::max(1L << 20, 64 * static_cast<long>(bytes.size())));
    expectNextRequest(connection);
}

TEST(HTTPMessageReader, IsUsableAfterAFailingRead) {
    std::size_t nth = 1;
    for (;; ++nth) {
        ReaderConnection c(kNested, 1);
        c.wire.failAtRead(static_cast<int>(nth));
        if (raisedCode([&] { c.request(); }) == 0) break;
        expectNextRequest(c);
    }
    EXPECT_GT(nth, std::string(kNested).size()) << "each byte has a read of its own";
}

TEST(HTTPMessageReader, ReportsOutOfMemoryAndReadsTheNextMessage) {
    forEachFailingAllocation([] {
        ReaderConnection c(kNested);
        auto const codeOfRequest = [&] { return raisedCode([&] { c.request(); }); };
        try {
            c.request();
        } catch (QOROutOfMemoryError const&) {
        } catch (std::bad_alloc const&) {
        }
        for (int i = 0; i < 50 && codeOfRequest() != 1009;) ++i;
        c.wire.append("POST /next HTTP/1.1\r\n\r\n");
        EXPECT_TRUE(codeOfRequest() == -1 || c.text == "/next") << "-1: no memory now";
    });
}
