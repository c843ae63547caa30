#include <gtest/gtest.h>

#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPParser.h"
#include "support/Raised.h"
#include "support/TreeText.h"

namespace {

// A builder with the calls of the parser, short.
struct Builder {
    Builder() { handler.setMessage(&root); }
    void header(char const* name, char const* value) {
        HTTPHeader parsed;
        parsed.parse(value);
        handler.header(name, &parsed);
    }
    void content(char const* bytes, int length) {
        ZULMemoryInputStream stream(bytes, static_cast<int>(std::char_traits<char>::length(bytes)));
        handler.content(stream, length);
    }

    HTTPMessage root;
    HTTPMOMMsgHandler handler;
};

}  // namespace

TEST(HTTPMOMMsgHandler, KeepsTheLastHeaderOfAName) {
    Builder b;
    b.header("accept", "a; x=1");
    b.header("set-cookie", "c");
    b.header("Accept", "b");
    b.header("set-cookie", "d");
    EXPECT_EQ(treeText(b.root),
              "  accept: b\n  set-cookie: c\n  set-cookie: d\n  body 0 00000000 \n");
}

TEST(HTTPMOMMsgHandler, AppendsBodyBytesAlsoThoseBeforeAnError) {
    Builder b;
    b.content("hello", 5);
    b.content("abcd", 3);
    EXPECT_EQ(raisedCode([&] { b.content("xy", 3); }), 2000);
    EXPECT_EQ(std::string(b.root.contentBytes(), 10), "helloabcxy");
    EXPECT_EQ(b.root.contentSize(), 10);
}

TEST(HTTPMOMMsgHandler, NestsPartsInTheirOrder) {
    Builder b;
    b.handler.startMultiParts("A");
    for (char const* const name : {"one", "two", "three"}) {
        b.handler.startPart();
        b.header("n", name);
        if (name[1] == 'w') {
            b.handler.startMultiParts("B");
            b.handler.startPart();
            b.content("x", 1);
            b.handler.endPart();
            b.handler.endMultiParts("B");
        }
        b.handler.endPart();
    }
    b.handler.endMultiParts("A");
    b.handler.endMessage();
    EXPECT_EQ(treeText(b.root),
              "  part\n    n: one\n    body 0 00000000 \n"
              "  part\n    n: two\n    part\n      body 1 8cdc1683 x\n"
              "  part\n    n: three\n    body 0 00000000 \n");
    EXPECT_STREQ(b.root.getBoundary(), "A");
    EXPECT_STREQ(b.root.getPart(1)->getBoundary(), "B");
}

TEST(HTTPMOMMsgHandler, RefusesEventsOutOfOrder) {
    Builder b;
    char const* const noMessage = "QOR_ASSERT(m_pCurrentMessage);";
    EXPECT_EQ(failedAssertion([&] { b.handler.startPart(); }), "QOR_ASSERT(!m_pCurrentMessage);");
    b.handler.startMultiParts("A");
    EXPECT_EQ(failedAssertion([&] { b.handler.endMessage(); }),
              "QOR_ASSERT(m_parentStack.empty());");
    EXPECT_EQ(failedAssertion([&] { b.header("a", "b"); }), noMessage);
    EXPECT_EQ(failedAssertion([&] { b.content("a", 1); }), noMessage);
    EXPECT_EQ(failedAssertion([&] { b.handler.startMultiParts("B"); }), noMessage);
    ZULMemoryInputStream stream("", 0);
    EXPECT_EQ(failedAssertion([&] { b.handler.content(stream); }), noMessage);
    b.handler.endPart();
    EXPECT_EQ(b.root.num_parts(), 0);
}

TEST(HTTPMOMMsgHandler, StartsAnewWithAnotherMessageAfterAnAbandonedOne) {
    Builder b;
    HTTPMessage other;
    b.handler.startMultiParts("A");
    b.handler.startPart();
    b.handler.startMultiParts("B");
    b.handler.startPart();
    b.handler.setMessage(&other);
    b.handler.reset();
    b.header("a", "b");
    b.handler.endMessage();
    EXPECT_EQ(b.root.num_parts(), 1);
    EXPECT_EQ(treeText(other), "  a: b\n  body 0 00000000 \n");
    b.handler.setMessage(nullptr);
    EXPECT_EQ(failedAssertion([&] { b.header("a", "b"); }), "QOR_ASSERT(m_pCurrentMessage);");
}
