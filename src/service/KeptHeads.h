#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "service/HeadLine.h"

namespace postwire {

// The lines of each head of a message as they came, the parts' in the order in which those came.
//
// Ownership: what lines gives is good until something is added.
class KeptHeads {
public:
    // A message begins, with its own head.
    void begin();
    void beginPart() { m_begins.push_back(m_lines.size()); }
    void add(std::string_view name, std::string_view text);

    [[nodiscard]] int count() const { return static_cast<int>(m_begins.size()); }
    [[nodiscard]] std::vector<HeadLine> lines(int head) const;

    // Gives back memory that only an unusual message needs.
    void shrink();

private:
    std::string m_lines;                // names and texts, each with a zero byte
    std::vector<std::size_t> m_begins;  // where in m_lines each head does
};

}  // namespace postwire
