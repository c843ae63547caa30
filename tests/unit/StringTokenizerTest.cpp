#include <gtest/gtest.h>

#include "foundation/StringTokenizer.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/RowTest.h"

namespace {

TEST_ROWS(StringTokenizer, SplitsAtDelimiters, "tokens.txt") {
    int const length = c.has("length") ? static_cast<int>(c.number("length")) : 40;
    int const empty = static_cast<int>(c.number("empty"));
    QORStringTokenizer part(c["text"].c_str(), length, c["delims"].c_str(), empty);
    QORStringTokenizer whole(c["text"].c_str(), c["delims"].c_str(), empty);
    for (QORStringTokenizer* const t : {&part, &whole}) {
        if (t == &whole && c.has("length")) continue;
        std::string tokens;
        while (t->hasMoreTokens() && (!c.has("rest") || tokens != c["tokens"]))
            tokens += std::string("[") + t->nextToken() + ']';
        EXPECT_EQ(c["tokens"], tokens);
        EXPECT_EQ(c["rest"], t->hasMoreTokens() ? t->theRest() : "");
    }
}

TEST(StringTokenizer, UsesANewDelimiterSetFromTheNextTokenOn) {
    QORStringTokenizer t("a b;c d", " ", 0);
    EXPECT_STREQ("a", t.nextToken(";"));
    EXPECT_STREQ("b", t.nextToken());
    EXPECT_STREQ("c d", t.nextToken());
    EXPECT_THROW(t.nextToken(), NoSuchElementExceptionST);
    EXPECT_THROW(t.theRest(), NoSuchElementExceptionST);
    EXPECT_THROW(QORStringTokenizer(nullptr, " ", 1).nextToken(), NoSuchElementExceptionST);
    EXPECT_EQ(0, QORStringTokenizer(nullptr, -1, " ", 0).hasMoreTokens());
    EXPECT_EQ("QOR_ASSERT(length >= 0);", raisedText([] { QORStringTokenizer("", -1, "", 0); }));
}

}  // namespace
