#pragma once

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

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

constexpr bool isHexDigit(char c) { return hexDigitValue(c) >= 0; }

// The digit for the lowest four bits.
constexpr char hexDigit(unsigned value) { return "0123456789abcdef"[value & 15U]; }
constexpr char upperHexDigit(unsigned value) { return "0123456789ABCDEF"[value & 15U]; }

// RFC 4648 section 4: the digit for each six bits.
inline constexpr std::string_view kBase64Digits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Appends bytes in base64, the last group padded.
inline void appendBase64(std::string& to, std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t const n = std::min<std::size_t>(bytes.size(), 3);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i)
            bits = bits << 8 | (i < n ? static_cast<unsigned char>(bytes[i]) : 0U);
        char const four[] = {kBase64Digits[bits >> 18], kBase64Digits[bits >> 12 & 63],
                             n > 1 ? kBase64Digits[bits >> 6 & 63] : '=',
                             n > 2 ? kBase64Digits[bits & 63] : '='};
        to.append(four, sizeof four);
        bytes.remove_prefix(n);
    }
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

// Whether all characters are from the blank to "~". Eight at a time: the sums set a byte's highest
// bit where it is not, and a carry can set more of them only next to one that is set.
inline bool isPrintable(std::string_view text) {
    constexpr std::uint64_t kEach = 0x0101010101010101U;
    while (text.size() >= 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data(), 8);
        if (((word - kEach * ' ') | (word + kEach) | word) & kEach * 0x80) return false;
        text.remove_prefix(8);
    }
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < '\x7f'; });
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
    for (; *a != '\0' && equalsInAnyCase(*a, *b); ++a, ++b) {
    }
    return static_cast<unsigned char>(asciiLowerCase(*a)) -
           static_cast<unsigned char>(asciiLowerCase(*b));
}

// The words of a line, with blanks and tabs between them; each is ended by a zero byte where
// it stands, and empty where there is none.
class Words {
public:
    explicit Words(char* line) : m_next(line) {}

    std::string_view nextWord() {
        char* const word = rest();
        m_next = ::strchrnul(word, ' ');
        auto size = static_cast<std::size_t>(m_next - word);
        if (void* const tab = std::memchr(word, '\t', size)) {
            m_next = static_cast<char*>(tab);
            size = static_cast<std::size_t>(m_next - word);
        }
        if (*m_next != '\0') *m_next++ = '\0';
        return {word, size};
    }
    char* rest() {
        while (isBlank(*m_next)) ++m_next;
        return m_next;
    }

private:
    char* m_next;
};

// The number that a text begins with, as strtol reads it in base 10, but without the process's
// locale and with the limits of int on every target, where long may be wider.
struct DecimalNumber {
    int value = 0;
    bool hasDigits = false;

    explicit DecimalNumber(char const* text) {
        while (isAsciiSpace(*text)) ++text;
        bool const isNegative = *text == '-';
        if (isNegative || *text == '+') ++text;
        long long const limit = isNegative ? -static_cast<long long>(INT_MIN) : INT_MAX;
        long long number = 0;
        for (; isDigit(*text); ++text, hasDigits = true)
            number = std::min(number * 10 + (*text - '0'), limit);
        value = static_cast<int>(isNegative ? -number : number);
    }
};

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
    // Loaded before any byte is stored, because a load of bytes that were just stored is slow.
    std::uint64_t const last = eightBytes(end - 8);
    for (; end - text > 8; text += 8) storeLowerCase(eightBytes(text), text);
    storeLowerCase(last, end - 8);
}

#ifdef __SSE2__
inline __m128i sixteenBytes(char const* text) {
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(text));
}

// All bits of those bytes that lie from `first` to `last`.
inline __m128i bytesFromTo(__m128i bytes, char first, char last) {
    // Moved to where the least signed numbers are, so that one comparison tells.
    __m128i const moved = _mm_add_epi8(bytes, _mm_set1_epi8(static_cast<char>(-128 - first)));
    return _mm_cmpgt_epi8(_mm_set1_epi8(static_cast<char>(last - first - 127)), moved);
}

// How many bytes in front have all bits set.
inline unsigned countOfFirst(__m128i bytes) {
    int const found = _mm_movemask_epi8(bytes);
    return found == 0xFFFF ? 16U
                           : static_cast<unsigned>(__builtin_ctz(~static_cast<unsigned>(found)));
}
#endif

// Both of these go over a text once, sixteen bytes at a time where the processor has instructions
// for that. Up to as many bytes as the text has are written; only those copied have a meaning.

// Copies the token that the text begins with, in lower case; its size. `to` may be the text.
inline std::size_t copyTokenInLowerCase(char const* text, char const* end, char* to) {
    std::size_t const size = static_cast<std::size_t>(end - text);
    std::size_t at = 0;
#ifdef __SSE2__
    // Letters, and from the hyphen to the digits what has the bit of lower case: other characters
    // of tokens are left to the table. Behind the token the text itself is left as it is.
    __m128i const place = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    __m128i const bit = _mm_set1_epi8('a' - 'A'), slash = _mm_set1_epi8('/');
    for (unsigned n = 16; n == 16 && size - at >= 16; at += n) {
        __m128i const bytes = sixteenBytes(text + at), lower = _mm_or_si128(bytes, bit);
        __m128i const usual = _mm_or_si128(
            bytesFromTo(lower, 'a', 'z'),
            _mm_andnot_si128(_mm_cmpeq_epi8(bytes, slash), bytesFromTo(bytes, '-', '9')));
        n = countOfFirst(usual);
        __m128i const within = _mm_cmplt_epi8(place, _mm_set1_epi8(static_cast<char>(n)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at),
                         to == text ? _mm_or_si128(bytes, _mm_and_si128(bit, within)) : lower);
    }
#endif
    for (char c; at != size && (c = tokenLowerCase(text[at])) != 0; ++at) to[at] = c;
    return at;
}

// Copies the text up to its first control character; the number of bytes before that.
inline std::size_t copyToControlCharacter(char const* text, char const* end, char* to) {
    std::size_t const size = static_cast<std::size_t>(end - text);
    std::size_t at = 0;
#ifdef __SSE2__
    // One comparison finds them, and the tab and what is not ASCII, which are looked at again.
    __m128i const one = _mm_set1_epi8(1), blank = _mm_set1_epi8(' ');
    while (size - at >= 16) {
        __m128i const bytes = sixteenBytes(text + at);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + at), bytes);
        unsigned const n = countOfFirst(_mm_cmpgt_epi8(_mm_add_epi8(bytes, one), blank));
        at += n;
        if (n == 16) continue;
        if (isControlCharacter(text[at])) return at;
        ++at;
    }
#else
    // The sums set a byte's highest bit from the blank on, and at 0x7F.
    using Word = std::uintptr_t;
    constexpr Word kEach = ~Word{0} / 0xFF;
    for (Word word; size - at >= sizeof word; at += sizeof word) {
        std::memcpy(&word, text + at, sizeof word);
        Word const low = word & kEach * 0x7F;
        if ((~(low + kEach * (0x80 - ' ')) | (low + kEach)) & ~word & kEach * 0x80) break;
        std::memcpy(to + at, &word, sizeof word);
    }
#endif
    for (; at != size && !isControlCharacter(text[at]); ++at) to[at] = text[at];
    return at;
}
