#include <climits>
#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORUtConvert.h"

#include "support/AllocationFaults.h"
#include "support/Raised.h"

namespace {

std::string textOf(QORByteBuffer const& b) {
    EXPECT_EQ('\0', b.str()[b.pcount()]);
    return {b.str(), b.pcount()};
}

}  // namespace

TEST(QORByteBuffer, AppendsTextsBytesAndNumbers) {
    for (int const n : {0, -1, 255, 16384, INT_MAX, INT_MIN}) {
        char expected[64];
        std::snprintf(expected, sizeof expected, "<%d>%x%x%d", n, static_cast<unsigned>(n), 10, n);
        QORByteBuffer b(0, 0);
        b << "<" << n << '>';
        b.setHexRadix(1);
        b << n;
        QORByteBuffer copy(b);
        b.reset();
        EXPECT_EQ("a", textOf(b << 10)) << "the radix outlives reset";
        copy << 10;
        copy.setHexRadix(0);
        EXPECT_EQ(expected, textOf(copy << "" << n));
        copy.appendChars("\0\n", 2);
        EXPECT_EQ(expected + std::string("\0\n", 2), textOf(copy));
    }
}

TEST(QORByteBuffer, TrimsWhiteSpaceAtBothEnds) {
    for (std::string const& text :
         {std::string(), std::string("a"), std::string("x\n \xa0"), std::string("\0 \0", 3)})
        for (std::string const space : {"", " \t\r\n\v\f", "\r\n"}) {
            QORByteBuffer b(16, 16);
            b << space.c_str();
            b.appendChars(text.data(), static_cast<unsigned>(text.size()));
            EXPECT_EQ(text.size(), (b << space.c_str()).trim());
            EXPECT_EQ(text, textOf(b));
        }
}

TEST(QORByteBuffer, AppendsItsOwnBytesWhileItGrows) {
    QORByteBuffer b(1, 1);
    b << "abcdefg";
    for (std::string expected = "abcdefg"; expected.size() < 100000;) {
        b.appendChars(b.str() + 3, b.pcount() - 3);
        expected += expected.substr(3);
        ASSERT_EQ(expected += expected, textOf(b << b.str()));
    }
}

TEST(QORByteBuffer, GrowsGeometricallyAndByItsStepAtLeast) {
    QORByteBuffer b(16, 16), reserved(16, 16), wide(1, 1000);
    auto const append = [](QORByteBuffer& to, int n) {
        while (n-- > 0) to << 'x';
    };
    EXPECT_GE(16, allocationsOf([&] { append(b, 1 << 20); }));
    EXPECT_GE(16, allocationsOf([&] {
                  for (unsigned i = 0; i < 1U << 20; ++i) reserved.reserve(i);
              }));
    EXPECT_EQ(1, allocationsOf([&] { append(wide, 1001); }));
    QORByteBuffer copy(wide);
    EXPECT_EQ(1, allocationsOf([&] { append(copy, 1001); })) << "a copy keeps capacity and step";
}

TEST(QORByteBuffer, RefusesLengthsItCannotHoldAndStaysAsItWas) {
    QORByteBuffer b(16, 16);
    b << "abc";
    for (unsigned const n : {0x80000000U, UINT_MAX}) {
        EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { b.reserve(n); }));
        EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { b.setLength(n); }));
        EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { b.appendChars("x", n - 3); }));
        EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { QORByteBuffer(n, 1); }));
    }
    EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { b.setLength(17); }));
    EXPECT_EQ("abc", textOf(b));
    std::memcpy(b.str() + 3, "defg", 4);
    b.setLength(6);
    EXPECT_EQ("abcdef", textOf(b));
}

TEST(QORByteBuffer, IsAsItWasWhereMemoryRunsOut) {
    int const allocations = forEachFailingAllocation([] {
        QORByteBuffer b(1, 1);
        unsigned length = 0;
        try {
            for (; length < 200; ++length) b << 'x';
            QORByteBuffer const copy(b);
        } catch (QOROutOfMemoryError const&) {
            EXPECT_TRUE(b.pcount() == length && std::strlen(b.str()) == length);
            throw;
        }
    });
    EXPECT_LT(5, allocations);
}

TEST(QORUtConvert, LowersAsciiLettersAlone) {
    char text[] = "Content-TYPE@[`{\xc4\xd6";
    QORUtConvert::strlwr(text);
    EXPECT_STREQ("content-type@[`{\xc4\xd6", text);
}
