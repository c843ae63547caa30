// print_request FILE: reads a request as it came from the wire and prints it as a tree: the names,
// values and attributes of its headers, and the size and first bytes of each body.
//
// It is a handler of its own, so a body of any size is printed in the memory of one block.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <string>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMsgHandler.h"
#include "parser/HTTPParser.h"

namespace {

class FileInput : public ZULInputStream {
public:
    explicit FileInput(char const* path) : m_file(path, std::ios::binary) {}
    bool isOpen() const { return m_file.is_open(); }

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        m_file.read(bytes, n);
        auto const count = static_cast<int>(m_file.gcount());
        return count == 0 && n > 0 ? -1 : count;
    }

private:
    std::ifstream m_file;
};

class TreePrinter : public HTTPMsgHandler {
public:
    void reset() override { m_depth = 0; }
    void setURI(char const* uri) override { line("POST ", uri); }
    void setStatusCode(HTTPMessage::StatusCode) override {}
    void setStatusMessage(char const*) override {}

    // The value, then its attributes, one a line.
    void header(char const* name, HTTPHeader* value) override {
        QORByteBuffer text(256, 256);
        value->dump(text);
        std::string rest = text.str();
        std::string before = std::string(name) + ": ";
        do {
            std::size_t const end = std::min(rest.find("; "), rest.size());
            line(before, rest.substr(0, end));
            rest.erase(0, end + 2);
            before = "    ";
        } while (!rest.empty());
    }

    // Reads exactly `length` bytes: what is left of a body is taken for what follows it.
    void content(ZULInputStream& is, int length) override {
        Body body;
        while (body.size != length) {
            int const n = is.readFully(m_block, std::min(length - body.size, kBlock));
            body.add(m_block, n);
        }
        print(body);
    }

    // Reads to the end, of the chunked body or of the connection.
    void content(ZULInputStream& is) override {
        Body body;
        for (int n; (n = is.read(m_block, kBlock)) > 0;) body.add(m_block, n);
        print(body);
    }

    void startMultiParts(char const* boundary) override { line("parts between ", boundary); }
    void startPart() override {
        line("part", "");
        ++m_depth;
    }
    void endPart() override { --m_depth; }
    void endMessage() override {}

private:
    static constexpr int kBlock = 4096;

    struct Body {
        int size = 0;
        std::string start;

        void add(char const* bytes, int n) {
            size += n;
            start.append(bytes, std::min(static_cast<std::size_t>(n), 40 - start.size()));
        }
    };

    void print(Body const& body) {
        std::string start = body.start;
        for (char& c : start) {
            if (!std::isprint(static_cast<unsigned char>(c))) c = '.';
        }
        if (!start.empty()) start.insert(0, ": ");
        line("body of " + std::to_string(body.size) + " bytes", start);
    }

    void line(std::string const& before, std::string const& text) const {
        std::printf("%*s%s%s\n", 2 * m_depth, "", before.c_str(), text.c_str());
    }

    int m_depth = 0;
    char m_block[kBlock];
};

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    FileInput file(argv[1]);
    if (!file.isOpen()) {
        std::fprintf(stderr, "%s: cannot read %s\n", argv[0], argv[1]);
        return 2;
    }
    ZULBufferedInputStream stream(file, 4096);
    TreePrinter printer;
    HTTPParser parser;
    parser.setMsgHandler(&printer);
    parser.parseRequest(&stream);
    return 0;
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
    return 1;
}
