#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORUtConvert.h"

#include "support/AllocationFaults.h"
#include "support/RowTest.h"

namespace {

// The calls of buffer_transcripts.txt.
struct Buffer {
    std::unique_ptr<QORByteBuffer> b;
    std::vector<std::string> gave;

    void show() {
        gave.emplace_back(b->str(), b->pcount());
        if (b->str()[b->pcount()] != '\0') gave.emplace_back("no zero behind it");
    }
    void make(Call const& call) {
        auto const n = static_cast<unsigned>(call.number());
        auto const second = static_cast<unsigned>(std::atoi(call.rest()));
        if (call.is("new")) b = std::make_unique<QORByteBuffer>(n, second);
        if (call.is("copy")) b = std::make_unique<QORByteBuffer>(*b);
        if (call.is("add")) *b << call.all();
        if (call.is("char")) *b << call.text[0];
        if (call.is("int")) *b << call.number();
        if (call.is("hex")) b->setHexRadix(call.number());
        if (call.is("bytes")) b->appendChars(call.rest(), n);
        if (call.is("own")) b->appendChars(b->str() + n, b->pcount() - n);
        if (call.is("self")) *b << b->str();
        if (call.is("poke")) std::strcpy(b->str() + n, call.rest());
        if (call.is("length")) b->setLength(n);
        if (call.is("reserve")) b->reserve(n);
        if (call.is("reset")) b->reset();
        if (call.is("trim")) gave.push_back(std::to_string(b->trim()));
        if (call.is("capacity")) gave.push_back(std::to_string(b->capacity()));
        if (call.is("show")) show();
        call.mustBeKnown();
    }
};

}  // namespace

TEST_ROWS(QORByteBuffer, AnswersEachCallOfATranscript, "buffer_transcripts.txt") {
    expectTranscript<Buffer>(c);
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
