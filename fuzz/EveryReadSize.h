#pragma once

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"

// What a stream hands out at a time must not show in what is read from it. Each target reads its
// input at every size here and stops at the first difference.
constexpr int kReadSizes[] = {INT_MAX, 1, 2, 3, 5, 8, 16};

// Hands out its bytes in pieces of at most `step`. They are a block of their own of just that
// size, so that a read beyond them is caught.
class Pieces : public ZULInputStream {
public:
    Pieces(std::string_view bytes, int step) : m_left(bytes), m_step(step) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        if (n == 0) return 0;
        if (m_left.empty()) return -1;
        std::size_t const given =
            std::min(static_cast<std::size_t>(std::min(n, m_step)), m_left.size());
        std::memcpy(bytes, m_left.data(), given);
        m_left.remove_prefix(given);
        return static_cast<int>(given);
    }

private:
    std::string_view m_left;
    int m_step;
};

inline std::string_view asText(std::uint8_t const* data, std::size_t size) {
    return {reinterpret_cast<char const*>(data), size};
}

// The name and text of what a call raised from the core library; empty: nothing was raised.
// Everything else ends the target.
template <class Call>
std::string raisedBy(Call const& call) {
    try {
        call();
        return "";
    } catch (QORThrowable const& t) {
        char const* const text = t.getMessage();
        return std::string(t.getThrowableName()) + ": " + (text ? text : "");
    }
}

inline void require(std::string const& found, std::string const& expected, char const* what) {
    if (found == expected) return;
    std::fprintf(stderr, "%s differs:\n%s\n---- expected:\n%s\n", what, found.c_str(),
                 expected.c_str());
    std::abort();
}

// Reads messages until one fails and gives what was found: the start line's data and the tree of
// each, then the error. `next` reads one message and gives the data of its start line. After the
// error the reader is used once more: what it then finds depends on how far it had read ahead.
template <class Next>
std::string readAll(std::string_view bytes, int step, Next const& next) {
    Pieces wire(bytes, step);
    ZULBufferedInputStream buffered(wire, 4096);
    HTTPMessageReader reader(buffered);
    std::string found;
    HTTPMessage message;
    for (;;) {
        std::string const error = raisedBy([&] {
            found += next(reader, message);
            QORByteBuffer text(256, 256);
            message.dump(text, 0);
            found.append("\n").append(text.str(), text.pcount()) += "\n";
        });
        if (error.empty()) continue;
        raisedBy([&] { next(reader, message); });
        return found + error;
    }
}

template <class Next>
void requireSameAtEveryReadSize(std::uint8_t const* data, std::size_t size, Next const& next) {
    std::string const whole = readAll(asText(data, size), kReadSizes[0], next);
    for (int const step : kReadSizes) {
        require(readAll(asText(data, size), step, next), whole, "what is read");
    }
}
