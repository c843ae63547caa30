#pragma once

#include <functional>
#include <initializer_list>

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
void expectTranscript(std::string const& transcript, std::vector<std::string>& gave,
                      std::function<void(Call const&)> const& make);
