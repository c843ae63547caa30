#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// Characters, tokens and lists as HTTP sees them: ASCII, whatever the process's locale.

// Blank, \t, \n, \v, \f and \r: what isspace takes in the POSIX locale.
constexpr bool isAsciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// What may stand around the value of a field, RFC 9110 section 5.6.3.
constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }

// 0x00 to 0x1F but the tab, and 0x7F.
constexpr bool isControlCharacter(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f';
}

constexpr char asciiLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool isLetterOrDigit(char c) {
    return isDigit(c) || (asciiLowerCase(c) >= 'a' && asciiLowerCase(c) <= 'z');
}

// 0 to 15, or -1 for a character that is no hexadecimal digit.
constexpr int hexDigitValue(char c) {
    if (isDigit(c)) return c - '0';
    char const lower = asciiLowerCase(c);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The lower-case form of each character of a token, RFC 9110 section 5.6.2; 0 for all others.
inline constexpr std::array<char, 256> kTokenLowerCase = [] {
    std::array<char, 256> table{};
    for (unsigned c = 0; c < 128; ++c)
        if (isLetterOrDigit(static_cast<char>(c))) table[c] = asciiLowerCase(static_cast<char>(c));
    for (char const c : std::string_view("!#$%&'*+-.^_`|~"))
        table[static_cast<unsigned char>(c)] = c;
    return table;
}();

constexpr char tokenLowerCase(char c) { return kTokenLowerCase[static_cast<unsigned char>(c)]; }

constexpr bool isTokenCharacter(char c) { return tokenLowerCase(c) != 0; }

inline bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

// The text without the characters at its ends that `belongs` takes.
template <class Belongs>
constexpr std::string_view strippedOf(std::string_view text, Belongs belongs) {
    while (!text.empty() && belongs(text.front())) text.remove_prefix(1);
    while (!text.empty() && belongs(text.back())) text.remove_suffix(1);
    return text;
}

constexpr std::string_view withoutSpaces(std::string_view text) {
    return strippedOf(text, isAsciiSpace);
}

constexpr std::string_view withoutBlanks(std::string_view text) {
    return strippedOf(text, isBlank);
}

constexpr bool equalsInAnyCase(char a, char b) {
    return a == b || asciiLowerCase(a) == asciiLowerCase(b);
}

inline bool equalsInAnyCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return equalsInAnyCase(x, y); });
}

inline bool beginsInAnyCase(std::string_view text, std::string_view start) {
    return equalsInAnyCase(text.substr(0, start.size()), start);
}

// As strcasecmp of the POSIX locale: letters without their case, bytes unsigned.
inline int compareInAnyCase(char const* a, char const* b) {
    while (*a != '\0' && equalsInAnyCase(*a, *b)) ++a, ++b;
    return static_cast<unsigned char>(asciiLowerCase(*a)) -
           static_cast<unsigned char>(asciiLowerCase(*b));
}

// Calls f with each item of a list with commas, white space around it taken off; an item may be
// empty, and an empty list is one empty item.
template <class F>
void forEachItem(std::string_view list, F f) {
    for (;;) {
        std::size_t const comma = std::min(list.find(','), list.size());
        f(withoutSpaces(list.substr(0, comma)));
        if (comma == list.size()) return;
        list.remove_prefix(comma + 1);
    }
}

// Eight bytes at a time. The sums set a byte's highest bit from 'A' on and from behind 'Z' on,
// without a carry into the next byte.
inline void toLowerCase(char* text, char* end) {
    if (end - text < 8) {
        for (; text != end; ++text) *text = asciiLowerCase(*text);
        return;
    }
    auto const eightBytes = [](char const* at) {
        std::uint64_t word;
        std::memcpy(&word, at, 8);
        return word;
    };
    auto const storeLowerCase = [](std::uint64_t word, char* at) {
        constexpr std::uint64_t kEach = 0x0101010101010101U;
        std::uint64_t const low = word & kEach * 0x7F;
        std::uint64_t const fromA = low + kEach * (0x80 - 'A');
        std::uint64_t const behindZ = low + kEach * (0x7F - 'Z');
        word |= (fromA & ~behindZ & ~word & kEach * 0x80) >> 2;
        std::memcpy(at, &word, 8);
    };
    // Read before its first bytes are written: a load across a fresh store waits for it.
    std::uint64_t const last = eightBytes(end - 8);
    for (; end - text > 8; text += 8) storeLowerCase(eightBytes(text), text);
    storeLowerCase(last, end - 8);
}
