#pragma once

#include <functional>
#include <initializer_list>

#include "foundation/QORThrowable.h"

#include "support/AllocationFaults.h"
#include "support/CaseFile.h"
#include "support/Transcript.h"

// TEST_ROWS(Suite, Behaviour, "file.txt") { ... } is a test of its own for each case `c` of the
// files, named by its place: --gtest_filter='*/file.txt/57' runs the one of line 57 alone. It
// fails as well where it leaves a value of the row unread: then a column's name is misspelt.
#define TEST_ROWS(suite, behaviour, ...)                                                         \
    static void suite##_##behaviour(TestCase const& c);                                          \
    [[maybe_unused]] static bool const suite##_##behaviour##_added =                             \
        addRowTests(#suite, #behaviour, {__VA_ARGS__}, suite##_##behaviour, __FILE__, __LINE__); \
    static void suite##_##behaviour(TestCase const& c)

bool addRowTests(char const* suite, char const* behaviour, std::initializer_list<char const*> files,
                 void (*body)(TestCase const&), char const* source, int line);

// Makes the calls of a transcript; what each gave and raised must be what stands below it. `make`
// adds answers to `gave`.
void expectAnswers(std::string const& transcript, std::vector<std::string>& gave,
                   std::function<void(Call const&)> const& make);

// The same for a Maker's make(call) and `gave`; then the calls again with one allocation failing
// after the other, whatever else they raise, unless they run out of memory as it is.
template <class Maker>
void expectTranscript(TestCase const& c) {
    {
        Maker maker;
        expectAnswers(c["calls"], maker.gave, [&](Call const& call) { maker.make(call); });
    }
    if (c["calls"].find("! QOROutOfMemoryError") != std::string::npos) return;
    std::vector<Call> const calls = callsOf(c["calls"]);
    forEachFailingAllocation([&] {
        Maker maker;
        for (Call const& call : calls) try {
                maker.make(call);
            } catch (QOROutOfMemoryError const&) {
                throw;
            } catch (QORThrowable const&) {
            }
    });
}
