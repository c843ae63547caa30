#include <gtest/gtest.h>
#include <strings.h>

#include "message/HTTPMessage.h"
#include "support/AllocationFaults.h"
#include "support/StagedHeaders.h"

namespace {

TEST(HTTPHeaders, CompareNamesAsStrcasecmpDoes) {
    httphdr_CaseInsensitiveStringComparePredicate const before;
    for (int i = 0; i < 256 * 256; ++i) {
        std::string const x{'n', static_cast<char>(i / 256), '\0', 'x'};
        std::string const y{'N', static_cast<char>(i % 256), '\0', 'y'};
        ASSERT_EQ(strcasecmp(x.c_str(), y.c_str()) < 0, before(x, y)) << i;
    }
}

TEST(HTTPHeaders, GiveTheFirstOfEqualEntries) {
    HTTPHeaders headers;
    HTTPHeader header("a text of more than 15 letters");
    HTTPHeader* const first = headers.setHeader("Set-Cookie", &header);
    for (int i = 0; i < 9; ++i) EXPECT_NE(first, headers.setHeader("set-cookie", &header));
    EXPECT_EQ(first, headers.getHeader("SET-COOKIE"));
    HTTPHeader* const host = headers.setHeader("Host", &header);
    char const* const text = host->getValue();
    EXPECT_EQ(0, allocationsOf([&] { EXPECT_EQ(host, headers.setHeader("HOST", host)); }));
    EXPECT_EQ(0, allocationsOf([&] { *host = *headers.moveHeader("host", *host); }));
    EXPECT_EQ(text, host->getValue());
    EXPECT_EQ(0, allocationsOf([&] { headers.getHeader("a-name-of-more-than-15-letters"); }));
}

TEST(HTTPHeaders, StayAsTheyWereWhenMemoryRunsOut) {
    for (char const* const name : {"a-name-of-more-than-15", "hOST", "Set-Cookie"})
        forEachFailingAllocation([name] {
            HTTPHeader header("a value of more than 15 letters, and more than the one before");
            header.setAttribute("attribute", "another value of more than 15");
            StagedHeaders staged;
            HTTPHeaders& headers = staged.headers;
            staged.setHeader("Host", "a value");
            staged.setHeader("set-cookie", "a value of some length");
            staged.setHeader("host", "a value of some length");
            try {
                headers.setHeader(name, &header);
            } catch (std::bad_alloc const&) {
                QORByteBuffer buf(64, 64);
                headers.dump(buf);  // raises as well where all later allocations fail
                EXPECT_STREQ(
                    "Host: a value of some length\r\nset-cookie: a value of some length\r\n",
                    buf.str());
                throw;
            }
        });
}

}  // namespace
