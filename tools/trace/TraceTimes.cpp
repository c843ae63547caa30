#include "tools/trace/TraceTimes.h"

#include <charconv>

namespace {

constexpr char kFirstLine[] = "# postwire times 1";
constexpr char kTlsLine[] = "# clear text of TLS";
constexpr Microseconds kSecond = 1000000;
constexpr std::size_t kLongestLine = 200;

// Takes a number and the character behind it off the text; -1 where they are not there.
std::int64_t takeNumber(std::string_view& text, char behind) {
    std::int64_t number = -1;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    std::size_t const n = static_cast<std::size_t>(end - text.data());
    bool const last = n == text.size();
    if (error != std::errc() || number < 0 || (last ? behind != '\0' : text[n] != behind))
        return -1;
    text.remove_prefix(n + (last ? 0 : 1));
    return number;
}

}  // namespace

TraceTimes::TraceTimes(std::string const& path) : m_file(std::fopen(path.c_str(), "rbe")) {}

Microseconds TraceTimes::of(std::uint64_t index, bool read, std::uint64_t count) {
    while (m_file && m_lines <= index) {
        if (!readLine()) return kNoTime;  // also of a full disk, where it may be empty
        bool const isFirst = !m_begun && m_line == kFirstLine;
        bool const isTls = m_begun && m_lines == 0 && m_line == kTlsLine;
        m_tls = m_tls || isTls;
        m_begun = m_begun || isFirst;
        if (isFirst || isTls || (m_begun && m_lines++ < index)) continue;
        std::string_view left = m_line;
        bool const direction = left.substr(0, 2) == (read ? "r " : "s ");
        left.remove_prefix(left.size() < 2 ? left.size() : 2);
        bool const same = takeNumber(left, ' ') == static_cast<std::int64_t>(count) && direction;
        std::int64_t const seconds = takeNumber(left, '.');
        bool const six = left.size() == 6;
        std::int64_t const micros = takeNumber(left, '\0');
        if (m_begun && same && six && seconds >= 0 && micros >= 0)
            return seconds * kSecond + micros;
        m_file.reset();
        m_other = true;
    }
    return kNoTime;
}

bool TraceTimes::readLine() {
    char text[kLongestLine];
    long const before = std::ftell(m_file.get());
    if (!std::fgets(text, sizeof text, m_file.get())) {
        std::clearerr(m_file.get());
        return false;
    }
    m_line = text;
    if (m_line.empty() || m_line.back() != '\n') {
        std::fseek(m_file.get(), before, SEEK_SET);
        return false;
    }
    m_line.pop_back();
    return true;
}
