#pragma once

#include <algorithm>
#include <string_view>

// Characters as HTTP sees them: ASCII, whatever the process's locale.

// Blank, \t, \n, \v, \f and \r.
constexpr bool isAsciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

constexpr char asciiLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline bool equalsInAnyCase(std::string_view text, std::string_view lowerCase) {
    return std::equal(text.begin(), text.end(), lowerCase.begin(), lowerCase.end(),
                      [](char a, char b) { return asciiLowerCase(a) == b; });
}
