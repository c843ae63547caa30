#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace postwire::internal {

struct LineAsItCame;  // in headers of their own, which are not installed
struct ConstTree;

// A header line where it stands: the name, a zero byte, the text; borrowed.
struct HeaderLine {
    char const* bytes;
    std::size_t nameSize;
    std::size_t textSize;

    std::string_view name() const { return {bytes, nameSize}; }
    std::string_view text() const { return {bytes + nameSize + 1, textSize}; }
};

// Copies of header lines that no one has asked for yet, in the order in which they came. Most
// never are: to copy a line costs a tenth of what it costs to take it apart.
//
// Ownership: owns the bytes; a line that is iterated to is good until one is added.
// Units: sizes are bytes.
// Raises: std::bad_alloc where a line is added, and then is as it was.
class HeaderLines {
    // What stands before each line. A line that was removed keeps its room, and its size leads past
    // it.
    struct Head {
        std::size_t size;  // of the line
        std::size_t nameSize;
    };
    static constexpr std::size_t kRemoved = ~std::size_t{0};  // for a name's size

public:
    class Iterator {
    public:
        HeaderLine operator*() const {
            Head const head = headAt(m_at);
            return {m_at + sizeof head, head.nameSize, head.size - head.nameSize - 1};
        }
        Iterator& operator++() {
            m_at += sizeof(Head) + headAt(m_at).size;
            skipRemoved();
            return *this;
        }
        bool operator!=(Iterator const& other) const { return m_at != other.m_at; }
        bool operator==(Iterator const& other) const { return m_at == other.m_at; }

    private:
        friend class HeaderLines;
        Iterator(char const* at, char const* end) : m_at(at), m_end(end) { skipRemoved(); }
        void skipRemoved() {
            for (Head head; m_at != m_end && (head = headAt(m_at)).nameSize == kRemoved;)
                m_at += sizeof head + head.size;
        }

        char const* m_at;  // the head of a line
        char const* m_end;
    };

    HeaderLines() = default;
    HeaderLines(HeaderLines const&) = delete;
    HeaderLines& operator=(HeaderLines const&) = delete;
    ~HeaderLines() { release(); }

    Iterator begin() const { return {m_bytes, m_bytes + m_used}; }
    Iterator end() const {
        char const* const end = m_bytes + m_used;
        return {end, end};
    }

    // The first line of that name, in any letter case, from `from` on; else the end.
    Iterator find(std::string_view name, Iterator from) const;
    Iterator find(std::string_view name) const { return find(name, begin()); }

    // What a search walks over, lines that were removed included; 0 where there never was one.
    std::size_t size() const { return m_used; }

    void add(HeaderLine const& line) {
        Head const head{line.nameSize + 1 + line.textSize, line.nameSize};
        if (sizeof head + head.size <= m_capacity - m_used)
            std::memcpy(append(head), line.bytes, head.size);
        else
            growAndAdd(line);
    }
    void add(std::string_view name, std::string_view text);

    // Iterators stay good; the line's own one for a search behind it.
    void remove(Iterator line);

    // Removes all lines; the memory is kept for others.
    void clear() { m_used = 0; }

    // The same, and gives the memory back.
    void release();

private:
    static Head headAt(char const* at) {
        Head head;
        std::memcpy(&head, at, sizeof head);
        return head;
    }
    // Where the line's bytes go; there must be room for both.
    char* append(Head const& head) {
        char* const at = m_bytes + m_used;
        std::memcpy(at, &head, sizeof head);
        m_used += sizeof head + head.size;
        return at + sizeof head;
    }
    void makeRoom(std::size_t lineSize);
    void growAndAdd(HeaderLine const& line);

    char* m_bytes = nullptr;  // not filled before they are used, as a vector's would be
    std::size_t m_capacity = 0;
    std::size_t m_used = 0;
};

}  // namespace postwire::internal
