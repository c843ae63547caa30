#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "support/Raised.h"
#include "support/ReaderConnection.h"

// The messages of tests/data/captured, recorded by scripts/capture, which tells what the files
// beside them hold.
namespace {

namespace fs = std::filesystem;

struct Capture {
    std::string name, wire, tree, cuts;
};

std::string fileText(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<Capture> captures() {
    std::vector<Capture> found;
    for (auto const& entry : fs::directory_iterator(POSTWIRE_TEST_DATA "/captured")) {
        fs::path path = entry.path();
        if (path.extension() != ".http") continue;
        found.push_back({path.stem(), fileText(path), fileText(path.replace_extension(".tree")),
                         fileText(path.replace_extension(".cuts"))});
    }
    return found;
}

std::string read(ReaderConnection& connection, Capture const& c) {
    return c.wire[0] == 'H' ? connection.responseTree() : connection.requestTree();
}

// Reads the first `length` bytes of a capture, then another message on the same reader.
void expectOutcome(Capture const& c, std::size_t length, std::string const& outcome) {
    SCOPED_TRACE(c.name + " cut to " + std::to_string(length) + " bytes");
    ReaderConnection connection(c.wire.substr(0, length),
                                length % 2 == 0 ? kRandomSizes : kAllAtOnce);
    std::string tree;
    long const code = raisedCode([&] { tree = read(connection, c); });
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

TEST(CapturedInput, HasItsTreeAtEveryReadSize) {
    std::vector<Capture> const all = captures();
    EXPECT_GE(all.size(), 16U);
    forEachReadSize([&](int step) {
        for (Capture const& c : all) {
            ReaderConnection connection(c.wire, step);
            EXPECT_EQ(read(connection, c), c.tree);
        }
    });
}

// Every length; of a range that would take long, both ends and some between.
TEST(CapturedInput, CutShortIsTheSameTreeOrAShorterBodyOrAnError) {
    for (Capture const& c : captures()) {
        std::istringstream cuts(c.cuts);
        std::size_t from, to, next = 0;
        for (std::string outcome; cuts >> from >> to >> outcome; next = to + 1) {
            EXPECT_EQ(from, next) << c.name;
            for (std::size_t i = from; i < to; i += to - from < 65536 ? 1 : 123457)
                expectOutcome(c, i, outcome);
            expectOutcome(c, to, outcome);
        }
        EXPECT_EQ(next, c.wire.size()) << c.name << " is cut at every length";
    }
}

TEST(CapturedInput, IsReadAgainFromWhatDumpWrites) {
    for (Capture const& c : captures())
        for (int const chunksize : {0, 1, 1000}) {
            SCOPED_TRACE(c.name + ", chunks of " + std::to_string(chunksize));
            ReaderConnection first(c.wire);
            read(first, c);
            QORByteBuffer bytes(256, 256);
            bytes << "POST / HTTP/1.1\r\n";
            first.message.dump(bytes, chunksize);
            ReaderConnection again(std::string(bytes.str(), bytes.pcount()));
            again.request();
            EXPECT_EQ(treeText(again.message), treeText(first.message));
        }
}
