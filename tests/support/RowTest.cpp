#include "support/RowTest.h"

#include <memory>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "support/Raised.h"

namespace {

class RowTest : public ::testing::Test {
public:
    explicit RowTest(std::function<void()> body) : m_body(std::move(body)) {}
    void TestBody() override { m_body(); }

private:
    std::function<void()> m_body;
};

void run(TestCase const& row, void (*body)(TestCase const&)) {
    // Names the row as a place in a file, which editors open.
    std::string const path = POSTWIRE_TEST_DATA "/" + row.file();
    ::testing::ScopedTrace const trace(path.c_str(), row.line(), "this row");
    body(row);
    if (::testing::Test::HasFailure()) return;
    EXPECT_EQ("", row.unread()) << "is a column that nobody looks at: misspelt?";
}

}  // namespace

bool addRowTests(char const* suite, char const* behaviour, std::initializer_list<char const*> files,
                 void (*body)(TestCase const&), char const* source, int line) {
    auto const add = [&](std::string const& place, std::function<void()> const& test) {
        ::testing::RegisterTest(suite, (behaviour + ('/' + place)).c_str(), nullptr, nullptr,
                                source, line,
                                [=]() -> ::testing::Test* { return new RowTest(test); });
    };
    for (std::string const file : files) try {
            for (TestCase const& row : loadCases(file))
                add(file + '/' + std::to_string(row.line()), [=] { run(row, body); });
        } catch (std::exception const& e) {
            add(file, [error = std::string(e.what())] { FAIL() << error; });
        }
    return true;
}

void expectAnswers(std::string const& transcript, std::vector<std::string>& gave,
                   std::function<void(Call const&)> const& make) {
    std::istringstream lines(transcript);
    std::string expected, actual;
    for (std::string line; std::getline(lines, line);) {
        expected += (isCall(line) ? line : unescaped(line)) + '\n';
        if (!isCall(line)) continue;
        actual += line + '\n';
        std::string const error = raisedText([&] { make(Call(line)); });
        for (std::string const& answer : std::exchange(gave, {}))
            actual += (answer.empty() ? ">" : "> " + answer) + '\n';
        if (!error.empty()) actual += "! " + error + '\n';
    }
    EXPECT_EQ(expected, actual);
}
