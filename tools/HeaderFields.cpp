#include "tools/HeaderFields.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tools/TextEscapes.h"

namespace {

bool isAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

char lowerCased(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string_view trimmed(std::string_view text) {
    std::size_t const begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

}  // namespace

bool isToken(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return isAlphanumeric(c) || (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c));
    });
}

bool isFieldValue(std::string_view text) {
    bool good = true;
    for (char const c : text) {
        unsigned char const byte = static_cast<unsigned char>(c);
        good &= (byte >= 0x20 && byte != 0x7f) || byte == '\t';
    }
    return good;
}

HeaderField parseHeaderField(std::string const& text) {
    std::size_t const colon = text.find(':');
    if (colon == std::string::npos)
        throw std::invalid_argument("a header field is 'Name: value': " + printable(text));
    HeaderField field{text.substr(0, colon),
                      std::string(trimmed(std::string_view(text).substr(colon + 1)))};
    if (!isToken(field.name))
        throw std::invalid_argument("no header field name: '" + printable(field.name) + "'");
    if (!isFieldValue(text.substr(colon + 1)))
        throw std::invalid_argument("the value of " + field.name +
                                    " holds a line end or another control character");
    return field;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lowerCased(x) == lowerCased(y); });
}

bool listHolds(std::string_view list, std::string_view token) {
    while (!list.empty()) {
        std::size_t const comma = std::min(list.find(','), list.size());
        if (equalIgnoringCase(trimmed(list.substr(0, comma)), token)) return true;
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return false;
}
