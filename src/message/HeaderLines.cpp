#include "message/HeaderLines.h"

#include "foundation/AsciiText.h"

namespace postwire::internal {

namespace {

// The lines of a usual part in one piece of memory, those of a usual message in two.
constexpr std::size_t kFirstRoom = 512;

}  // namespace

HeaderLines::Iterator HeaderLines::find(std::string_view name, Iterator from) const {
    Iterator const last = end();
    from.skipRemoved();
    while (from != last && !equalsInAnyCase((*from).name(), name)) ++from;
    return from;
}

void HeaderLines::add(std::string_view name, std::string_view text) {
    char* const at = roomFor(name.size(), text.size());
    std::memcpy(at, name.data(), name.size());
    at[name.size()] = '\0';
    std::memcpy(at + name.size() + 1, text.data(), text.size());
}

void HeaderLines::remove(Iterator line) {
    char* const at = m_bytes.data() + (line.m_at - m_bytes.data());
    Head head = headAt(at);
    head.nameSize = kRemoved;
    std::memcpy(at, &head, sizeof head);
}

void HeaderLines::release() {
    std::vector<char>().swap(m_bytes);
    m_used = 0;
}

// The vector doubles its memory, and all of that is ours.
void HeaderLines::grow(std::size_t more) {
    if (m_bytes.empty()) m_bytes.reserve(kFirstRoom);
    m_bytes.resize(m_used + more);
    m_bytes.resize(m_bytes.capacity());
}

}  // namespace postwire::internal
