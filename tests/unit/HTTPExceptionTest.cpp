#include <set>

#include <gtest/gtest.h>

#include "foundation/ZULStreamException.h"

#include "foundation/GuardedAllocation.h"
#include "foundation/HTTPException.h"
#include "foundation/StringTokenizer.h"
#include "sender/HTTPMessageSender.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/RecordingOutputStream.h"
#include "support/RowTest.h"

namespace {

QORFileLocation const kHere("Here", 7);

TEST_ROWS(HTTPException, HasATextForEachCodeAsStreamsHave, "error_texts.txt") {
    int const code = static_cast<int>(c.number("code"));
    char const* const text =
        code / 1000 == 2
            ? ZULStreamException::getMessageString(static_cast<ZULStreamException::Fault>(code))
            : HTTPException::getMessageString(static_cast<HTTPException::plexaErrorCode>(code));
    EXPECT_EQ(c["text"], text ? text : "null");
}

TEST(HTTPException, IsAssignedWithItsMessages) {
    HTTPException error(HTTPException::HTTP_ERR_VERSION), copy("other");
    error << QORMessage(I18NString("text", nullptr, -1, nullptr, nullptr));
    copy = error;
    copy.operator=(copy);
    EXPECT_EQ("1001 text", std::to_string(copy.getCode()) + ' ' + copy.getMessage());
}

struct NullGiving {
    static void* operator new(std::size_t) noexcept { return nullptr; }
};

// What becomes of what escapes from an allocation.
template <class Failure>
std::string traceOf(Failure const& failure) {
    auto const make = [&]() -> std::unique_ptr<int> { throw failure; };
    auto const t = raised([&] { (void)guarded(kHere, make); });
    return t->getThrowableName() + (' ' + backTraceText(*t));
}

TEST(GuardedAllocation, TurnsEachFailureIntoItsThrowable) {
    EXPECT_EQ("QOR_THROW Here\n", raisedBackTrace([] { (void)guardedNew<NullGiving>(kHere); }));
    EXPECT_EQ("QOROutOfMemoryError QOR_THROW Here\n", traceOf(std::bad_alloc()));
    EXPECT_EQ("QORStdExceptionError QOR_THROW Here\n", traceOf(std::runtime_error("why")));
    EXPECT_EQ("HTTPException QOR_RETHROW Here\n", traceOf(HTTPException("why")));
    EXPECT_THROW(traceOf(1), int);
}

TEST(GuardedAllocation, ReportsWantOfMemoryFromItsCallersFile) {
    HTTPException const error("a text that is too long to stand inside");
    std::set<std::string> traces;
    forEachFailingAllocation([&] {
        try {
            std::unique_ptr<HTTPException>(error.clone()).reset();
            QORStringTokenizer("a b", " ", 0);
            RecordingOutputStream os;
            MultipartHttpMsg(os, 5, "b1").addOnePiece(5);
        } catch (QOROutOfMemoryError const& e) {
            AllocationPause const pause;
            traces.insert(backTraceText(e));
            throw;
        }
    });
    std::string const sender = "QOR_THROW HTTPMessageSender\n";
    std::string const passed = "QOR_RETHROW HTTPMessageSender\n";
    // A body stream or a part; an encoder, or a part's stream; a part's encoder.
    for (std::string const& expected :
         {std::string("QOR_THROW HTTPException\n"), std::string("QOR_THROW StringTokenizer\n"),
          sender, sender + passed, sender + passed + passed})
        EXPECT_EQ(1U, traces.count(expected)) << expected;
}

}  // namespace
