#pragma once

#include <cstddef>
#include <istream>
#include <vector>

// Hands out a stream of any size block by block.
class BlockReader {
public:
    explicit BlockReader(std::istream& in) : m_in(in), m_block(kSize) {}

    // Reads the next block; false at the end, or when the stream failed.
    bool next() {
        m_in.read(m_block.data(), kSize);
        return m_in.gcount() > 0;
    }

    char const* bytes() const { return m_block.data(); }
    std::size_t size() const { return static_cast<std::size_t>(m_in.gcount()); }

private:
    static constexpr int kSize = 65536;

    std::istream& m_in;
    std::vector<char> m_block;
};
