#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/trace/Direction.h"

// A message or a part as far as it is kept: of a trace that is larger than memory, most is counted.
struct TracedPart {
    std::vector<std::pair<std::string, std::string>> fields;  // names in lower case
    std::string boundary;                                     // of its parts
    std::vector<TracedPart> parts;
    std::uint64_t moreParts = 0;  // not kept
    std::int64_t declared = -1;   // the length of the body
    std::uint64_t size = 0;       // of the body
    std::string excerpt;          // its beginning
    bool broken = false;          // reading stopped in it

    // The first field of this name, in lower case; empty without one.
    std::string field(std::string_view name) const;
};

// One message of a traced connection.
struct TracedMessage {
    std::uint64_t number = 0;  // from 1 on
    bool request = false;
    bool read = false;  // received by the traced side
    std::string head;   // start line and header lines, as they were on the wire
    TracedPart body;
    Span span;
    std::string error;  // why reading stopped here; empty for a whole message
};

// How much of a message is kept.
struct Keeping {
    std::size_t excerpt = 0;                 // of each body
    std::size_t excerpts = ~std::size_t{0};  // of all bodies of a message
    std::size_t parts = 0;                   // of a message, at all levels
    bool fields = false;                     // of parts
    // Where the bytes of all bodies go as well, with the place of the part: none for a message
    // without parts, {2, 1} for the first part of the second.
    std::function<void(std::vector<std::size_t> const& place, std::string_view bytes)> bytes;
};
