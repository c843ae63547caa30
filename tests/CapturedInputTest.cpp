#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "foundation/ZULBufferedInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/TreeText.h"

// The messages of tests/data/captured, recorded by scripts/capture, which tells what the files
// beside them hold.
namespace {

namespace fs = std::filesystem;

struct Cut {
    std::size_t from, to;
    std::string outcome;
};
struct Capture {
    std::string name, wire, tree;
    std::vector<Cut> cuts;
};

std::string fileText(fs::path const& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<Capture> const& captures() {
    static std::vector<Capture> const all = [] {
        std::vector<Capture> found;
        for (auto const& entry : fs::directory_iterator(POSTWIRE_TEST_DATA "/captured")) {
            fs::path path = entry.path();
            if (path.extension() != ".http") continue;
            Capture c{path.stem(), fileText(path), fileText(path.replace_extension(".tree")), {}};
            std::istringstream cuts(fileText(path.replace_extension(".cuts")));
            for (Cut cut; cuts >> cut.from >> cut.to >> cut.outcome;) c.cuts.push_back(cut);
            found.push_back(c);
        }
        return found;
    }();
    return all;
}

struct Connection {
    Connection(std::string const& bytes, int step) : wire(bytes, step) {}

    // Reads one message and gives its tree, the start line in front.
    std::string read(bool response) {
        std::string start;
        if (response) {
            HTTPMessage::StatusCode status{};
            reader.getResponse(&message, &status, &start);
            start = "response " + std::to_string(static_cast<int>(status)) + ' ' + start;
        } else {
            reader.getRequest(&message, &start);
            start = "request " + start;
        }
        return start + '\n' + treeText(message, 2);
    }
    std::string read(Capture const& c) { return read(c.wire[0] == 'H'); }

    FragmentingStream wire;
    ZULBufferedInputStream buffered{wire, 4096};
    HTTPMessageReader reader{buffered};
    HTTPMessage message;
};

std::string withoutLastLine(std::string const& text) {
    return text.substr(0, text.rfind('\n', text.size() - 2));
}

// Reads the first `length` bytes of a capture, then another message on the same reader.
void expectOutcome(Capture const& c, std::size_t length, std::string const& outcome, int step) {
    SCOPED_TRACE(c.name + " cut to " + std::to_string(length) + " bytes");
    Connection connection(c.wire.substr(0, length), step);
    std::string tree;
    long const code = raisedCode([&] { tree = connection.read(c); });
    if (outcome == "whole") {
        EXPECT_EQ(tree, c.tree);
    } else if (outcome == "shorter") {
        EXPECT_EQ(withoutLastLine(tree), withoutLastLine(c.tree));
        std::string const cut = c.wire.substr(0, length);
        std::size_t const body = std::min(c.wire.find("\r\n\r\n") + 4, length);
        EXPECT_EQ(connection.message.contentBytes(), cut.substr(body));
    } else {
        EXPECT_EQ(std::to_string(code), outcome);
    }
    connection.wire.append("POST /next HTTP/1.1\r\nContent-Length: 2\r\n\r\nok");
    EXPECT_EQ(connection.read(false), "request /next\n  content-length: 2\n  body 2 79dcdd47 ok\n");
}

// Every length; of a range that would take long, both ends and some between.
std::size_t strideOf(Cut const& cut) { return cut.to - cut.from < 65536 ? 1 : 123457; }

}  // namespace

TEST(CapturedInput, HasItsTreeAtEveryReadSize) {
    EXPECT_GE(captures().size(), 16U);
    forEachReadSize([](int step) {
        for (Capture const& c : captures()) EXPECT_EQ(Connection(c.wire, step).read(c), c.tree);
    });
}

TEST(CapturedInput, CutShortIsTheSameTreeOrAShorterBodyOrAnError) {
    for (Capture const& c : captures()) {
        for (Cut const& cut : c.cuts) {
            for (std::size_t i = cut.from; i < cut.to; i += strideOf(cut))
                expectOutcome(c, i, cut.outcome, i % 2 == 0 ? kRandomSizes : kAllAtOnce);
            expectOutcome(c, cut.to, cut.outcome, kAllAtOnce);
        }
    }
}

TEST(CapturedInput, RequestsFollowEachOtherOnOneReader) {
    forEachReadSize([](int step) {
        std::string all;
        for (Capture const& c : captures()) all += c.wire[0] == 'P' ? c.wire : "";
        Connection connection(all, step);
        for (Capture const& c : captures()) {
            if (c.wire[0] == 'P') {
                EXPECT_EQ(connection.read(c), c.tree);
            }
        }
        EXPECT_EQ(raisedCode([&] { connection.read(false); }), 1009);
    });
}
