#include <cstdlib>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "support/ReaderConnection.h"

namespace {

// Trees as dump writes them and the parser reads them back: multipart messages hold parts only and
// name their boundary.
class RandomTree {
public:
    explicit RandomTree(unsigned seed) : m_random(seed) {}

    int below(int n) { return static_cast<int>(m_random() % static_cast<unsigned>(n)); }
    std::string text(char const* alphabet, int least, int most) {
        std::string const letters = alphabet;
        std::string made;
        for (int n = least + below(most - least + 1); n > 0; --n)
            made += letters[static_cast<std::size_t>(below(static_cast<int>(letters.size())))];
        return made;
    }
    std::string token() { return text("abcXYZ019-_.", 1, 20); }

    void fill(HTTPMessage& message, int levels) {
        for (int n = below(6); n > 0; --n)
            message.setHeader(("X-" + token()).c_str(), value().c_str());
        for (int n = below(3); n > 0; --n) message.setHeader("Set-Cookie", value().c_str());
        if (levels > 1 && below(2) == 0) return fillParts(message, levels);
        std::string body = text("\r\n-aB", 0, 9);
        for (int n = below(2) * below(9000); n > 0; --n) body += static_cast<char>(below(256));
        if (below(4) > 0) message.setContent(body.data(), static_cast<int>(body.size()));
    }

private:
    std::string value() {
        std::string made = token() + text(" :=,/\t()\x80\xff", 0, 9) + token();
        for (int n = below(3); n > 0; --n) made += ";" + token() + "= " + token();
        return made;
    }
    void fillParts(HTTPMessage& message, int levels) {
        std::string const boundary = text("B-='", 0, 2) + token();
        message.setBoundary(boundary.c_str());
        message.setHeader("Content-Type", ("multipart/x; a=b; boundary=" + boundary).c_str());
        for (int n = 1 + below(3); n > 0; --n) {
            auto part = std::make_unique<HTTPMessage>();
            fill(*part, levels - 1);
            message.addChild(part.release());
        }
    }

    std::mt19937 m_random;
};

}  // namespace

TEST(HTTPMessageRoundTrip, WhatDumpWritesIsReadBack) {
    char const* const given = std::getenv("POSTWIRE_SEED");
    auto const seed =
        given ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    SCOPED_TRACE("POSTWIRE_SEED=" + std::to_string(seed));
    RandomTree tree(seed);
    for (int i = 0; i < 500 && !::testing::Test::HasFailure(); ++i) {
        HTTPMessage written;
        tree.fill(written, 3);
        QORByteBuffer bytes(256, 256);
        bytes << "POST /" << tree.token().c_str() << " HTTP/1.1\r\n";
        written.dump(bytes, tree.below(2) * (1 + tree.below(3000)));
        ReaderConnection c(std::string(bytes.str(), bytes.pcount()), kReadSizes[tree.below(7)]);
        c.request();
        EXPECT_EQ(treeText(c.message), treeText(written));
        EXPECT_EQ(c.wire.rest(), "");
    }
}
