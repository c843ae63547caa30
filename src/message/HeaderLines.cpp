#include "message/HeaderLines.h"

#include <algorithm>
#include <memory>

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
    char* const at = m_bytes + (line.m_at - m_bytes);
    Head head = headAt(at);
    head.nameSize = kRemoved;
    std::memcpy(at, &head, sizeof head);
}

void HeaderLines::release() {
    if (m_bytes) std::allocator<char>().deallocate(m_bytes, m_capacity);
    m_bytes = nullptr;
    m_capacity = m_used = 0;
}

void HeaderLines::growAndAdd(HeaderLine const& line) {
    makeRoom(line.nameSize + 1 + line.textSize);
    add(line);
}

void HeaderLines::makeRoom(std::size_t lineSize) {
    std::size_t const size = m_used + sizeof(Head) + lineSize;
    if (size <= m_capacity) return;
    std::size_t const capacity = std::max({size, 2 * m_capacity, kFirstRoom});
    char* const bytes = std::allocator<char>().allocate(capacity);
    std::size_t const used = m_used;
    if (used > 0) std::memcpy(bytes, m_bytes, used);
    release();
    m_bytes = bytes;
    m_capacity = capacity;
    m_used = used;
}

}  // namespace postwire::internal
