#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedOutputStream.h"
#include "foundation/ZULChunkedInputStream.h"
#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

#include "support/AllocationFaults.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/RowTest.h"

namespace {

void readOn(ZULInputStream& in, QORByteBuffer& data, int request) {
    while (in.read(data, request) > 0) continue;
}

struct Decoded {
    QORByteBuffer data{16, 16}, rest{16, 16};
    long error = 0;

    // In reads of at most `request` bytes; asks again after the end or the error.
    Decoded(std::string const& coded, int step, int request, int readAhead) {
        FragmentingStream wire(coded, step);
        ZULBufferedInputStream beneath(wire, readAhead);
        ZULChunkedInputStream decoder(beneath);
        error = raisedCode([&] { readOn(decoder, data, request); });
        int const reads = wire.reads();
        EXPECT_EQ(error, raisedCode([&] { readOn(decoder, data, request); })) << "asked again";
        EXPECT_EQ(reads, wire.reads()) << "asked again";
        if (error == 0) readOn(beneath, rest, 1000);
    }
};

std::string textOf(QORByteBuffer const& b) { return {b.str(), b.pcount()}; }

}  // namespace

TEST_ROWS(ZULChunkedInputStream, DecodesOrRefusesAtEveryReadSizeAndCut, "chunked_bodies.txt") {
    forEachReadSize([&](int step) {
        std::string const& coded = c["coded"];
        for (int const request : {4096, 3, 1})
            for (int const readAhead : {4096, 6, 1}) {
                Decoded const found(coded, step, request, readAhead);
                EXPECT_EQ(c["data"], textOf(found.data));
                EXPECT_EQ(c["rest"], textOf(found.rest));
                EXPECT_EQ(c.number("error"), found.error);
                if (coded.size() > 10000) return;
            }
        if (c.number("error") != 0 || coded.size() > 200) return;
        for (std::size_t cut = coded.size() - c["rest"].size(); cut-- > 0;) {
            Decoded const found(coded.substr(0, cut), step, 4096, 16);
            EXPECT_EQ(ZULStreamException::ZUL_ERR_END_OF_INPUT, found.error) << cut;
            EXPECT_EQ(0U, c["data"].find(textOf(found.data))) << cut;
        }
    });
}

TEST(ZULChunkedInputStream, JoinsBufferedChunksWithoutAllocating) {
    std::string coded;
    for (int i = 0; i < 1000; ++i) coded += "2\r\nab\r\n";
    FragmentingStream wire(coded + "0\r\n\r\n", 3500);
    ZULBufferedInputStream beneath(wire, 4096);
    ZULChunkedInputStream decoder(beneath), detached(beneath);
    char data[2000];
    int const allocations = allocationsOf([&] {
        EXPECT_EQ(1000, decoder.read(data, 2000)) << "those of the first read beneath";
        EXPECT_EQ(999, decoder.read(data, 999));
        EXPECT_EQ(1, decoder.read(data, 2000));
        EXPECT_EQ(-1, decoder.read(data, 2000));
    });
    EXPECT_EQ(1, allocations) << "the read-ahead alone";
    EXPECT_EQ(3, wire.reads());
    detached.detach();
    EXPECT_EQ("QOR_ASSERT(m_pIn);", failedAssertion([&] { detached.ZULInputStream::read(); }));
}

TEST(ZULChunkedInputStream, GoesOnAfterAFailedReadOrAllocation) {
    std::string const coded = "3;x\r\nabc\r\n2\r\nde\r\n0\r\nA: b\r\n\r\n";
    for (int nth = 1; nth <= static_cast<int>(coded.size()); ++nth)
        forEachFailingAllocation([&] {
            FragmentingStream wire(coded, 1);
            ZULBufferedInputStream beneath(wire, 4);
            ZULChunkedInputStream decoder(beneath);
            QORByteBuffer data(1, 1);
            wire.failAtRead(nth);
            for (int attempt = 0; attempt < 3 && data.pcount() < 5; ++attempt) try {
                    readOn(decoder, data, 2);
                } catch (QOROutOfMemoryError const&) {
                    if (attempt == 2) throw;
                } catch (QORException const& e) {
                    EXPECT_EQ(kStreamFailure, e.getCode());
                }
            EXPECT_STREQ("abcde", data.str());
        });
}

TEST(ZULOutputStream, RefusesSizesThatMakeNoSense) {
    ZULMemoryOutputStream memory(1000, 1000);
    memory.write("a\0b", 3);
    for (int const size : {0, -1, INT_MIN}) {
        EXPECT_EQ(2001, raisedCode([&] { ZULChunkedOutputStream(memory, size); }));
        EXPECT_EQ(2001, raisedCode([&] { ZULBufferedOutputStream(memory, size); }));
        EXPECT_EQ(size < 0 ? 2001 : 0, raisedCode([&] { memory.write("", size); }));
        EXPECT_EQ(size < 0 ? 2001 : 0, raisedCode([&] { ZULMemoryOutputStream(size, size); }));
    }
    EXPECT_EQ(std::string("a\0b", 4), std::string(memory.bytes(), 4));
    memory.reset();
    EXPECT_EQ(0, memory.length());
}

TEST(ZULChunkedOutputStream, LeavesNoGapWhereMemoryRunsOut) {
    forEachFailingAllocation([] {
        ZULMemoryOutputStream beneath(2000, 1);
        ZULChunkedOutputStream encoder(beneath, 600);
        static char const bytes[1000] = {};
        try {
            encoder.write(bytes, 1000);
        } catch (QOROutOfMemoryError const&) {
            encoder.write(bytes, 1000);
        }
        encoder.close();
        EXPECT_EQ(5 + 600 + 2 + 5 + 400 + 2 + 5, beneath.length());
    });
}
