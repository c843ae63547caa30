#include <cstring>

#include <gtest/gtest.h>

#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPParser.h"
#include "support/Raised.h"

namespace {

// A builder and the calls of the parser that need a stream or a header.
struct Builder : HTTPMOMMsgHandler {
    Builder() { setMessage(&root); }
    void read(char const* bytes, int length) {
        ZULMemoryInputStream stream(bytes, static_cast<int>(std::strlen(bytes)));
        length < 0 ? content(stream) : content(stream, length);
    }
    void store(char const* name) {
        HTTPHeader value("b");
        header(name, &value);
    }

    HTTPMessage root;
};

}  // namespace

TEST(HTTPMOMMsgHandler, AppendsBodyBytesAlsoThoseBeforeAnError) {
    Builder b;
    b.read("hello", 5);
    b.read("abcd", 3);
    EXPECT_EQ(raisedCode([&] { b.read("xy", 3); }), 2000);
    b.read("z", -1);
    EXPECT_EQ(std::string(b.root.contentBytes()), "helloabcxyz");
}

TEST(HTTPMOMMsgHandler, RefusesEventsOutOfOrder) {
    Builder b;
    EXPECT_EQ(failedAssertion([&] { b.startPart(); }), "QOR_ASSERT(!m_pCurrentMessage);");
    b.startMultiParts("A");
    EXPECT_EQ(failedAssertion([&] { b.endMessage(); }), "QOR_ASSERT(m_parentStack.empty());");
    char const* const noMessage = "QOR_ASSERT(m_pCurrentMessage);";
    EXPECT_EQ(failedAssertion([&] { b.store("a"); }), noMessage);
    EXPECT_EQ(failedAssertion([&] { b.read("a", 1); }), noMessage);
    EXPECT_EQ(failedAssertion([&] { b.read("a", -1); }), noMessage);
    EXPECT_EQ(failedAssertion([&] { b.startMultiParts("B"); }), noMessage);
    b.endPart();
    EXPECT_EQ(b.root.num_parts(), 0);
}

TEST(HTTPMOMMsgHandler, StartsAnewWithAnotherMessageAfterAnAbandonedOne) {
    Builder b;
    HTTPMessage other;
    b.startMultiParts("A");
    b.startPart();
    b.startMultiParts("B");
    b.startPart();
    b.setMessage(&other);
    b.store("a");
    b.endMessage();
    EXPECT_EQ(b.root.num_parts(), 1);
    EXPECT_STREQ(b.root.getPart(0)->getBoundary(), "B");
    EXPECT_STREQ(other.getHeader("A")->getValue(), "b");
    b.reset();
    EXPECT_EQ(other.getHeader("A"), nullptr);
    b.setMessage(nullptr);
    EXPECT_EQ(failedAssertion([&] { b.store("a"); }), "QOR_ASSERT(m_pCurrentMessage);");
}
