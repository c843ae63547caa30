#include "tools/common/TextEscapes.h"

namespace {

bool isControl(char c) {
    unsigned char const byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

template <class Escape>
std::string escaped(std::string_view text, Escape const& escape) {
    std::string result;
    result.reserve(text.size());
    for (char const c : text) escape(result, c);
    return result;
}

}  // namespace

std::string escapedForXml(std::string_view text) {
    return escaped(text, [](std::string& to, char c) {
        if (c == '<') {
            to += "&lt;";
        } else if (c == '>') {
            to += "&gt;";
        } else if (c == '&') {
            to += "&amp;";
        } else if (c == '"') {
            to += "&quot;";
        } else if (static_cast<unsigned char>(c) > 0x7f) {
            to += "&#" + std::to_string(static_cast<unsigned char>(c)) + ";";
        } else {
            to += isControl(c) ? '?' : c;
        }
    });
}

std::string escapedForJson(std::string_view text) {
    return escaped(text, [](std::string& to, char c) {
        if (c == '"' || c == '\\') {
            to += '\\';
            to += c;
        } else if (isControl(c) || static_cast<unsigned char>(c) > 0x7f) {
            unsigned char const byte = static_cast<unsigned char>(c);
            to += "\\u00";
            to += "0123456789abcdef"[byte >> 4];
            to += "0123456789abcdef"[byte & 15];
        } else {
            to += c;
        }
    });
}

std::string printable(std::string_view text) {
    return escaped(text, [](std::string& to, char c) { to += isControl(c) ? '?' : c; });
}
