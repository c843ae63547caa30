#include "service/KeptHeads.h"

#include "foundation/AsciiText.h"

namespace postwire {

void KeptHeads::begin() {
    m_lines.clear();
    m_begins.assign(1, 0);
}

void KeptHeads::add(std::string_view name, std::string_view text) {
    m_lines.append(name).push_back('\0');
    m_lines.append(text).push_back('\0');
}

std::vector<HeadLine> KeptHeads::lines(int head) const {
    std::vector<HeadLine> lines;
    if (head < 0 || head >= count()) return lines;
    auto const index = static_cast<std::size_t>(head);
    std::size_t const end = index + 1 < m_begins.size() ? m_begins[index + 1] : m_lines.size();
    for (std::size_t at = m_begins[index]; at < end;) {
        std::string_view const name = m_lines.c_str() + at;
        std::string_view const text = m_lines.c_str() + at + name.size() + 1;
        at += name.size() + text.size() + 2;
        lines.push_back({name, strippedOf(text, [](char c) { return isBlank(c) || c == '\r'; })});
    }
    return lines;
}

void KeptHeads::shrink() {
    constexpr std::size_t kKept = 65536;  // for the next message
    if (m_lines.capacity() > kKept) std::string().swap(m_lines);
    if (m_begins.capacity() > kKept / sizeof m_begins[0]) std::vector<std::size_t>().swap(m_begins);
}

}  // namespace postwire
