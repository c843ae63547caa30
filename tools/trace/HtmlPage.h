#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/trace/TracedMessage.h"

// What the page consists of, with names in braces where the rest goes.
extern char const kPageMarkup[];
extern char const kPageStyle[];
extern char const kPageScript[];

// A message, and when it was: since the first one, and since the end of the one before.
struct PageMessage {
    TracedMessage message;
    Microseconds at = kNoTime, gap = kNoTime;
};

// How much of a message stands on the page.
enum class Detail { Whole, Head, Row };

// The message's rung of the ladder. `trace` is its file, for the command that prints what is cut.
std::string markupOf(PageMessage const& message, std::string const& trace, Detail detail,
                     bool open);

// The page around its rungs, all of which are markup.
std::string pageOf(std::string const& title, std::string const& summary, std::string const& rungs);

// "12,345 bytes".
std::string bytesInWords(std::uint64_t bytes);
