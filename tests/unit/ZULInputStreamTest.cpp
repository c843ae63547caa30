#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULMemoryInputStream.h"

#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/RowTest.h"

namespace {

std::string textOf(QORByteBuffer const& b) { return {b.str(), b.pcount()}; }

// Calls body(stream) for buffered streams over the bytes, of all read sizes and buffer sizes.
template <class Body>
void forEachBuffering(std::string const& bytes, Body const& body) {
    forEachReadSize([&](int step) {
        for (int const size : {1, 2, 3, 7, 4096}) {
            SCOPED_TRACE("buffer size " + std::to_string(size));
            FragmentingStream beneath(bytes, step);
            ZULBufferedInputStream in(beneath, size);
            body(in);
        }
    });
}

}  // namespace

TEST(ZULInputStream, RefusesNegativeCountsAndAsksNothingForZero) {
    FragmentingStream wire("3\r\nabc\r\n0\r\n\r\n");
    ZULMemoryInputStream memory("abc", 3);
    ZULFilterInputStream filter(wire);
    ZULBufferedInputStream buffered(wire, 4);
    ZULChunkedInputStream chunked(buffered);
    QORByteBuffer buf(4, 4);
    char byte = 'x';
    std::initializer_list<ZULInputStream*> const streams = {&memory, &filter, &buffered, &chunked};
    for (ZULInputStream* const in : streams) {
        EXPECT_FALSE(in->canTimeout() || in->canCancel() || in->getTimeout() || in->getCancel());
        for (int const n : {0, -1, INT_MIN}) {
            long const code = n < 0 ? ZULStreamException::ZUL_ERR_NEGATIVE_COUNT : 0;
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(0, in->read(buf, n)); }));
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(0, in->read(&byte, n)); }));
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(0, in->readFully(buf, n)); }));
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(0, in->readFully(&byte, n)); }));
            EXPECT_EQ(code, raisedCode([&] { buffered.unread("", n); }));
            EXPECT_EQ(code, raisedCode([&] { buffered.setMaxLine(n); }));
            EXPECT_EQ(code, raisedCode([&] { ZULMemoryInputStream("", n); }));
            EXPECT_EQ(2001, raisedCode([&] { ZULBufferedInputStream(*in, n); }));
        }
    }
    EXPECT_TRUE(buffered.canUnread() && !chunked.canUnread());
    EXPECT_THROW(chunked.unread("", 1), char const*);
    EXPECT_EQ(0, wire.reads());
    EXPECT_EQ("x", byte + textOf(buf));
}

TEST(ZULInputStream, RaisesWhereAReadGivesMoreThanWasAsked) {
    struct : ZULInputStream {
        using ZULInputStream::read;
        int read(char*, int n) override { return n + 1; }
    } stream;
    QORByteBuffer buf(4, 4);
    EXPECT_EQ("QOR_ASSERT(got <= piece);", failedAssertion([&] { stream.read(buf, 9); }));
    EXPECT_EQ("", textOf(buf));
}

TEST(ZULInputStream, ReadsFullyOrTellsThatTheInputEnded) {
    std::string const bytes("\0one\r\n\xff two", 11);
    for (int cut = 0; cut <= 11; ++cut)
        forEachBuffering(bytes.substr(0, static_cast<unsigned>(cut)), [&](auto& buffered) {
            QORByteBuffer buf(0, 1);
            char memory[11] = "";
            ZULInputStream& in = cut % 2 ? buffered : *buffered.getInputStream();
            long const code = cut == 11 ? 0 : ZULStreamException::ZUL_ERR_END_OF_INPUT;
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(11, in.readFully(buf, 11)); }));
            EXPECT_EQ(bytes.substr(0, buf.pcount()), textOf(buf));
            buffered.unread(buf.str(), cut);
            EXPECT_EQ(code, raisedCode([&] { EXPECT_EQ(11, buffered.readFully(memory, 11)); }));
            EXPECT_EQ(0, bytes.compare(0, buf.pcount(), memory, buf.pcount()));
        });
}

TEST_ROWS(ZULBufferedInputStream, ReadsLinesAtEverySplit, "lines.txt") {
    forEachBuffering(c["bytes"], [&](ZULBufferedInputStream& in) {
        in.setMaxLine(static_cast<int>(c.number("limit")));
        ZULBufferedInputStream copy(in);
        std::string lines;
        QORByteBuffer line(0, 1);
        long const code = raisedCode([&] {
            for (; copy.readLine(line) >= 0; line.reset()) lines += '[' + textOf(line) + ']';
        });
        EXPECT_EQ(c["lines"], code == 0 ? lines : lines + std::to_string(code));
        EXPECT_GE(104U, line.pcount()) << "taken in spite of the limit";
    });
}

TEST(ZULBufferedInputStream, GivesBackEveryByteThatWasUnread) {
    for (int taken = 0; taken <= 10; ++taken)
        forEachBuffering("0123456789", [&](ZULBufferedInputStream& in) {
            QORByteBuffer head(0, 1), all(0, 1);
            in.readFully(head, taken);
            in.unread(head.str(), taken);
            in.unread("more than the read-ahead holds: ", 32);
            int n = 0;
            EXPECT_EQ('m', *in.peek(n));
            auto const tooFar = [&] { in.skip(n + 1); };
            EXPECT_EQ("QOR_ASSERT(n >= 0 && n <= buffered());", failedAssertion(tooFar));
            in.skip(5);
            EXPECT_EQ('t', in.read());
            in.unread(in.peek(n) + 4, 9);
            in.unread(in.peek(n) + 9, 20);
            ZULBufferedInputStream copy(in);
            while (copy.read(all, 3) > 0) continue;
            EXPECT_EQ("han the read-ahead hthe read-han the read-ahead holds: 0123456789",
                      textOf(all));
        });
}

TEST(ZULBufferedInputStream, AsksBeneathOnceAndAgainAfterAnEnd) {
    FragmentingStream wire("abcdef");
    ZULBufferedInputStream in(wire, 4);
    char bytes[8];
    int shown = 1;
    EXPECT_EQ('a', in.read());
    EXPECT_EQ(3, in.read(bytes, 8)) << "what is buffered";
    EXPECT_EQ(1, wire.reads());
    EXPECT_EQ(2, in.read(bytes, 8)) << "straight into the caller's memory";
    EXPECT_EQ(8, wire.largestRequest());
    in.peek(shown);
    EXPECT_EQ(0, shown);
    EXPECT_EQ(-1, in.read());
    wire.append("\xff");
    EXPECT_EQ(255, in.read());
    EXPECT_TRUE(in.getInputStream() == &wire);
    in.detach();
    in.unread("z", 1);
    EXPECT_EQ('z', in.read());
    EXPECT_EQ("QOR_ASSERT(m_pIn);", failedAssertion([&] { in.read(); }));
}
