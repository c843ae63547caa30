#include "message/HeaderLines.h"

#include "foundation/AsciiText.h"

namespace postwire::internal {

namespace {

// A usual head, ten lines of 45 bytes with what stands before them, without a second allocation.
constexpr std::size_t kFirstRoom = 640;

}  // namespace

HeaderLines::Iterator HeaderLines::find(std::string_view name, Iterator from) const {
    for (char const* at = from.m_at; at != from.m_end;) {
        Head const head = headAt(at);
        at += sizeof head;
        // The size of a removed line's name is no name's.
        if (head.nameSize == name.size() && equalsInAnyCase({at, head.nameSize}, name))
            return {at - sizeof head, from.m_end};
        at += head.size;
    }
    return end();
}

void HeaderLines::add(std::string_view name, std::string_view text) {
    Head const head{name.size() + 1 + text.size(), name.size()};
    makeRoom(head.size);
    char* const at = append(head);
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

void HeaderLines::growAndAdd(HeaderLine const& line) {
    makeRoom(line.nameSize + 1 + line.textSize);
    add(line);
}

// The vector at least doubles its memory, and all of that is ours.
void HeaderLines::makeRoom(std::size_t lineSize) {
    std::size_t const size = m_used + sizeof(Head) + lineSize;
    if (size <= m_bytes.size()) return;
    if (m_bytes.empty()) m_bytes.reserve(kFirstRoom);
    m_bytes.resize(size);
    m_bytes.resize(m_bytes.capacity());
}

}  // namespace postwire::internal
