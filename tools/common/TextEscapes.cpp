#include "tools/common/TextEscapes.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "foundation/AsciiText.h"

namespace {

struct Character {
    std::uint32_t point;     // of ISO 8859-1 where it is not valid
    std::string_view bytes;  // of the text
    bool valid;

    // The controls below U+0020, tab and line end among them, U+007F, and those up to U+009F.
    bool isControl() const { return point < 0x20 || (point >= 0x7F && point < 0xA0); }
};

bool continues(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The first character of a text that is not empty.
Character firstOf(std::string_view text) {
    // The least code point that may be written in so many bytes.
    static constexpr std::array<std::uint32_t, 5> kLeast{0, 0, 0x80, 0x800, 0x10000};
    std::uint32_t const first = static_cast<unsigned char>(text.front());
    Character const single{first, text.substr(0, 1), first < 0x80};
    std::size_t const size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC0 || first >= 0xF8 || text.size() < size) return single;
    std::uint32_t point = first & (0x7Fu >> size);
    for (char const c : text.substr(1, size - 1)) {
        if (!continues(c)) return single;
        point = point << 6 | (static_cast<unsigned char>(c) & 0x3Fu);
    }
    bool const surrogate = point >= 0xD800 && point < 0xE000;
    if (point < kLeast[size] || point > 0x10FFFF || surrogate) return single;
    return {point, text.substr(0, size), true};
}

// Printable ASCII stays but for what is special to the format; all else goes through `escape`.
template <class Special, class Escape>
std::string escaped(std::string_view text, Special const& isSpecial, Escape const& escape) {
    auto const stays = [&](char c) { return c >= ' ' && c < '\x7F' && !isSpecial(c); };
    std::string result;
    result.reserve(text.size());
    for (;;) {
        auto const end = std::find_if_not(text.begin(), text.end(), stays);
        result.append(text.begin(), end);
        text.remove_prefix(static_cast<std::size_t>(end - text.begin()));
        if (text.empty()) return result;
        Character const character = firstOf(text);
        escape(result, character);
        text.remove_prefix(character.bytes.size());
    }
}

}  // namespace

std::string escapedForXml(std::string_view text) {
    auto const isSpecial = [](char c) { return c == '<' || c == '>' || c == '&' || c == '"'; };
    return escaped(text, isSpecial, [](std::string& to, Character const& c) {
        switch (c.point) {
            case '<':
                to += "&lt;";
                return;
            case '>':
                to += "&gt;";
                return;
            case '&':
                to += "&amp;";
                return;
            case '"':
                to += "&quot;";
                return;
            default:
                break;
        }
        bool const stands = c.point > 0x7F && c.point != 0xFFFE && c.point != 0xFFFF;
        to += stands ? "&#" + std::to_string(c.point) + ";" : "?";
    });
}

std::string escapedForJson(std::string_view text) {
    auto const isSpecial = [](char c) { return c == '"' || c == '\\'; };
    return escaped(text, isSpecial, [](std::string& to, Character const& c) {
        if (c.point == '"' || c.point == '\\') {
            to += '\\';
            to += c.bytes;
        } else if (c.isControl() || !c.valid) {
            to += "\\u00";
            to += hexDigit(c.point >> 4U);
            to += hexDigit(c.point);
        } else {
            to += c.bytes;
        }
    });
}

std::string printable(std::string_view text) {
    auto const isSpecial = [](char) { return false; };
    return escaped(text, isSpecial, [](std::string& to, Character const& c) {
        to += c.isControl() || !c.valid ? std::string_view("?") : c.bytes;
    });
}

std::string printableLines(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        result.append(printable(line)).append("\n");
    }
    return result;
}
