#include <climits>

#include <gtest/gtest.h>

#include "foundation/ZULBufferedOutputStream.h"
#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

#include "support/AllocationFaults.h"
#include "support/Raised.h"

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
