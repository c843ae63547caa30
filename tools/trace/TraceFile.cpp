#include "tools/trace/TraceFile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <fstream>

#include "tools/common/BlockReader.h"

namespace {

std::string contentOf(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw TraceError(path + ": " + std::strerror(errno));
    std::string content;
    for (BlockReader block(in); block.next();) content.append(block.bytes(), block.size());
    if (in.bad()) throw TraceError(path + ": " + std::strerror(errno));  // it may be a folder
    return content;
}

struct BlockHeader {
    bool read;
    std::size_t count;
    std::size_t length;  // of the header itself
};

enum class Outcome { Good, Cut, Bad };

// Takes `text` off the front of `left`; Cut when `left` ends within it.
Outcome take(std::string_view& left, std::string_view text) {
    std::size_t const n = std::min(left.size(), text.size());
    if (left.substr(0, n) != text.substr(0, n)) return Outcome::Bad;
    left.remove_prefix(n);
    return n == text.size() ? Outcome::Good : Outcome::Cut;
}

Outcome takeNumber(std::string_view& left, std::size_t& number) {
    auto const [end, error] = std::from_chars(left.data(), left.data() + left.size(), number);
    if (error != std::errc()) return left.empty() ? Outcome::Cut : Outcome::Bad;
    if (number > INT_MAX) return Outcome::Bad;  // no single call carries so much
    left.remove_prefix(static_cast<std::size_t>(end - left.data()));
    return Outcome::Good;
}

Outcome readHeader(std::string_view left, BlockHeader& header) {
    std::size_t const before = left.size();
    std::string_view const write = "\n<write[";
    header.read = left.size() > 2 && left[2] == 'r';
    Outcome outcome = take(left, header.read ? "\n<read[" : write);
    if (outcome == Outcome::Good) outcome = takeNumber(left, header.count);
    if (outcome == Outcome::Good) outcome = take(left, "]>\n");
    header.length = before - left.size();
    return outcome;
}

}  // namespace

TraceFile::TraceFile(std::string const& path) : m_content(contentOf(path)) {
    std::string_view const all = m_content;
    for (std::size_t at = 0; at < all.size();) {
        BlockHeader header{};
        Outcome const outcome = readHeader(all.substr(at), header);
        if (outcome == Outcome::Cut && (at != 0 || all.size() > 2)) {
            m_missing = -1;
            return;
        }
        if (outcome != Outcome::Good) {
            throw TraceError(path + (at == 0 ? ": not a socket trace"
                                             : ": damaged at byte " + std::to_string(at)));
        }
        std::string_view const bytes = all.substr(at + header.length, header.count);
        m_blocks.push_back({header.read, bytes});
        m_missing = static_cast<long>(header.count - bytes.size());
        at += header.length + bytes.size();
    }
}
