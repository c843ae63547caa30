#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "support/Raised.h"
#include "support/ReaderConnection.h"
#include "support/RowTest.h"

namespace {

struct Capture {
    explicit Capture(TestCase const& c)
        : wire(text(c, ".http")), tree(text(c, ".tree")), cuts(text(c, ".cuts")) {}
    static std::string text(TestCase const& c, char const* kind) {
        std::ifstream file(POSTWIRE_TEST_DATA "/captured/" + c["name"] + kind, std::ios::binary);
        std::ostringstream all;
        all << file.rdbuf();
        return all.str();
    }
    std::string treeOf(ReaderConnection& c) const {
        return wire[0] == 'H' ? c.responseTree() : c.requestTree();
    }

    std::string wire, tree, cuts;
};

// Reads the first `length` bytes of a capture, then another message on the same reader.
void expectOutcome(Capture const& c, std::size_t length, std::string const& outcome) {
    SCOPED_TRACE("cut to " + std::to_string(length) + " bytes");
    ReaderConnection connection(c.wire.substr(0, length),
                                length % 2 == 0 ? kRandomSizes : kAllAtOnce);
    std::string tree;
    long const code = raisedCode([&] { tree = c.treeOf(connection); });
    if (outcome == "whole") {
        EXPECT_EQ(tree, c.tree);
    } else if (outcome == "shorter") {
        std::size_t const body = std::min(c.wire.find("\r\n\r\n") + 4, length);
        EXPECT_EQ(connection.message.contentBytes(), c.wire.substr(body, length - body));
        EXPECT_EQ(0, tree.compare(0, tree.rfind("body"), c.tree, 0, c.tree.rfind("body")));
    } else {
        EXPECT_EQ(std::to_string(code), outcome);
    }
    connection.expectNextRequest();
}

}  // namespace

TEST(CapturedInput, IsListedInFull) {
    std::filesystem::directory_iterator const files(POSTWIRE_TEST_DATA "/captured");
    EXPECT_EQ(3 * loadCases("captured.txt").size(),
              static_cast<std::size_t>(std::distance(begin(files), end(files))));
}

TEST_ROWS(CapturedInput, HasItsTreeAtEveryReadSizeAndAgainFromWhatDumpWrites, "captured.txt") {
    Capture const capture(c);
    forEachReadSize([&](int step) {
        ReaderConnection connection(capture.wire, step);
        EXPECT_EQ(capture.treeOf(connection), capture.tree);
        QORByteBuffer bytes(256, 256);
        bytes << "POST / HTTP/1.1\r\n";
        connection.message.dump(bytes, 125 * (step % 9));
        ReaderConnection again(std::string(bytes.str(), bytes.pcount()));
        again.request();
        EXPECT_EQ(treeText(again.message), treeText(connection.message));
    });
}

// Every length; of a range that would take long, both ends and some between.
TEST_ROWS(CapturedInput, CutShortIsTheSameTreeOrAShorterBodyOrAnError, "captured.txt") {
    Capture const capture(c);
    std::istringstream cuts(capture.cuts);
    std::size_t from, to, next = 0;
    for (std::string outcome; cuts >> from >> to >> outcome; next = to + 1) {
        EXPECT_EQ(from, next);
        for (std::size_t i = from; i < to; i += to - from < 65536 ? 1 : 123457)
            expectOutcome(capture, i, outcome);
        expectOutcome(capture, to, outcome);
    }
    EXPECT_EQ(next, capture.wire.size()) << "is cut at every length";
}
