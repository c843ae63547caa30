// stream_to_disk DIRECTORY: reads a request from standard input and writes each of its bodies into
// a file of its own, in the memory of one block.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <unistd.h>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "parser/HTTPMsgHandler.h"
#include "parser/HTTPParser.h"

namespace {

// A connection's stream takes its place in a server: *socket.getInputStream().
class DescriptorInput : public ZULInputStream {
public:
    explicit DescriptorInput(int descriptor) : m_descriptor(descriptor) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        ssize_t count = 0;
        do {
            count = ::read(m_descriptor, bytes, static_cast<std::size_t>(n));
        } while (count == -1 && errno == EINTR);
        if (count == -1) throw std::system_error(errno, std::generic_category(), "read");
        return count == 0 && n > 0 ? -1 : static_cast<int>(count);
    }

private:
    int m_descriptor;
};

class BodiesToDisk : public HTTPMsgHandler {
public:
    explicit BodiesToDisk(std::string const& directory) : m_directory(directory) {}

    void reset() override { m_bodies = 0; }
    void setURI(char const*) override {}
    void setStatusCode(HTTPMessage::StatusCode) override {}
    void setStatusMessage(char const*) override {}
    void header(char const*, HTTPHeader*) override {}
    void endMessage() override {}

    // Exactly `length` bytes, no more and no less; readFully raises where the input ends first, and
    // for a length below 0.
    void content(ZULInputStream& is, int length) override {
        std::ofstream file = open();
        for (int left = length; left != 0;) {
            int const n = is.readFully(m_block, std::min(left, kBlock));
            write(file, n);
            left -= n;
        }
        close(file);
    }

    // To the end of the body; a chunked one may be larger than any length can say.
    void content(ZULInputStream& is) override {
        std::ofstream file = open();
        for (int n; (n = is.read(m_block, kBlock)) > 0;) write(file, n);
        close(file);
    }

private:
    static constexpr int kBlock = 16384;

    // Numbers of our own: what a peer sent does not become a path.
    std::ofstream open() {
        m_size = 0;
        return std::ofstream(m_directory + "/body-" + std::to_string(++m_bodies), std::ios::binary);
    }

    void write(std::ofstream& file, int n) {
        require(static_cast<bool>(file.write(m_block, n)));
        m_size += n;
    }

    void close(std::ofstream& file) {
        file.close();
        require(static_cast<bool>(file));
        std::printf("body-%d: %lld bytes\n", m_bodies, m_size);
    }

    // Raised from an event, this ends the parse and reaches the caller of parseRequest.
    void require(bool written) const {
        if (!written) throw std::runtime_error("a body can't be written into " + m_directory);
    }

    std::string m_directory;
    int m_bodies = 0;
    long long m_size = 0;  // of the body that is being written
    char m_block[kBlock];
};

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY < REQUEST\n", argv[0]);
        return 2;
    }
    DescriptorInput input(STDIN_FILENO);
    ZULBufferedInputStream stream(input, 16384);
    BodiesToDisk handler(argv[1]);
    HTTPParser parser;
    parser.setMsgHandler(&handler);
    parser.parseRequest(&stream);
    return 0;
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
    return 1;
} catch (std::exception const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
