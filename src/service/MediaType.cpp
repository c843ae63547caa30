#include "service/MediaType.h"

#include <algorithm>
#include <map>

#include "foundation/AsciiText.h"
#include "service/PercentCoding.h"

namespace postwire {

namespace {

// One parameter as it stands there.
struct Written {
    std::string name;  // in lower case, without what follows "*"
    std::string value;
    int section = -1;       // of a value in pieces
    bool extended = false;  // its name ends in "*": it may be percent-encoded
};

class Parser {
public:
    explicit Parser(std::string_view text) : m_rest(text) {}

    std::string value() {
        std::size_t const end = std::min(m_rest.find(';'), m_rest.size());
        std::string_view const value = withoutSpaces(m_rest.substr(0, end));
        m_rest.remove_prefix(end);
        return std::string(value);
    }

    // False at the end.
    bool next(Written& parameter) {
        while (!m_rest.empty()) {
            m_rest.remove_prefix(1);  // the semicolon
            std::size_t const end = std::min(m_rest.find_first_of(";="), m_rest.size());
            std::string_view const name = withoutSpaces(m_rest.substr(0, end));
            m_rest.remove_prefix(end);
            if (m_rest.empty() || m_rest.front() == ';') continue;
            m_rest.remove_prefix(1);
            parameter = named(name);
            parameter.value = parameterValue();
            if (!parameter.name.empty()) return true;
        }
        return false;
    }

private:
    // "name", "name*", "name*1" or "name*1*".
    static Written named(std::string_view text) {
        Written parameter;
        std::size_t const star = std::min(text.find('*'), text.size());
        std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(star),
                       std::back_inserter(parameter.name), asciiLowerCase);
        std::string_view number = text.substr(star);
        if (number.empty()) return parameter;
        parameter.extended = number.back() == '*';
        number = strippedOf(number, [](char c) { return c == '*'; });
        if (number.empty()) return parameter;
        parameter.section = 0;
        for (char const c : number) {
            // No piece: its name is a name like others.
            if (!isDigit(c) || parameter.section > kMostSections) {
                parameter.name = text;
                std::transform(text.begin(), text.end(), parameter.name.begin(), asciiLowerCase);
                parameter.section = -1;
                parameter.extended = false;
                break;
            }
            parameter.section = parameter.section * 10 + (c - '0');
        }
        return parameter;
    }

    std::string parameterValue() {
        while (!m_rest.empty() && isAsciiSpace(m_rest.front())) m_rest.remove_prefix(1);
        if (!m_rest.empty() && m_rest.front() == '"') return quotedValue();
        std::size_t const end = std::min(m_rest.find(';'), m_rest.size());
        std::string_view const value = withoutSpaces(m_rest.substr(0, end));
        m_rest.remove_prefix(end);
        return std::string(value);
    }

    // Up to the quote that ends it, or the end of the text; what follows a quote belongs to none.
    std::string quotedValue() {
        std::string value;
        std::size_t at = 1;
        for (; at < m_rest.size() && m_rest[at] != '"'; ++at) {
            bool const escapes = m_rest[at] == '\\' && at + 1 < m_rest.size() &&
                                 (m_rest[at + 1] == '"' || m_rest[at + 1] == '\\');
            if (escapes) ++at;
            value += m_rest[at];
        }
        m_rest.remove_prefix(std::min(m_rest.find(';', at), m_rest.size()));
        return value;
    }

    static constexpr int kMostSections = 9999;

    std::string_view m_rest;
};

std::string utf8OfLatin1(std::string const& bytes) {
    std::string text;
    for (char const c : bytes) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte < 0x80) {
            text += c;
        } else {
            text += static_cast<char>(0xC0 | byte >> 6);
            text += static_cast<char>(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

// "charset'language'text", percent-encoded where `extended` says so for all of it.
std::string inUtf8(std::string_view charset, std::string const& bytes) {
    bool const isLatin1 =
        equalsInAnyCase(charset, "iso-8859-1") || equalsInAnyCase(charset, "latin1");
    return isLatin1 ? utf8OfLatin1(bytes) : bytes;
}

// All pieces of one name, RFC 2231 section 4.1; those behind a gap are left out.
std::string joined(std::map<int, Written> const& pieces) {
    std::string charset, bytes;
    int next = pieces.begin()->first;
    for (auto const& [section, piece] : pieces) {
        if (section != next++) break;
        std::string_view text = piece.value;
        if (piece.extended && section <= 0) {
            std::size_t const first = text.find('\'');
            std::size_t const second = first == text.npos ? first : text.find('\'', first + 1);
            if (second != text.npos) {
                charset = text.substr(0, first);
                text.remove_prefix(second + 1);
            }
        }
        bytes += piece.extended ? percentDecoded(text) : std::string(text);
    }
    return inUtf8(charset, bytes);
}

}  // namespace

MediaType::MediaType(std::string_view text) {
    Parser parser(text);
    m_value = parser.value();
    struct Value {
        std::string name;
        std::optional<std::string> plain;
        std::map<int, Written> pieces;
    };
    std::vector<Value> values;
    for (Written written; parser.next(written);) {
        auto value = std::find_if(values.begin(), values.end(),
                                  [&](Value const& v) { return v.name == written.name; });
        if (value == values.end()) {
            values.push_back({written.name, {}, {}});
            value = values.end() - 1;
        }
        if (written.extended || written.section >= 0)
            value->pieces.emplace(written.section, written);
        else if (!value->plain)
            value->plain = written.value;
    }
    for (Value const& value : values) {
        // A piece other than the first is no beginning.
        bool const isInPieces = !value.pieces.empty() && value.pieces.begin()->first <= 0;
        if (isInPieces)
            m_parameters.push_back({value.name, joined(value.pieces)});
        else if (value.plain)
            m_parameters.push_back({value.name, *value.plain});
    }
}

bool MediaType::is(std::string_view value) const { return equalsInAnyCase(m_value, value); }

bool MediaType::isMultipart() const { return beginsInAnyCase(m_value, "multipart/"); }

std::optional<std::string_view> MediaType::parameter(std::string_view name) const {
    for (Parameter const& parameter : m_parameters)
        if (equalsInAnyCase(parameter.name, name)) return parameter.value;
    return {};
}

void MediaType::append(std::string& to, std::string_view name, std::string_view value) {
    to.append("; ").append(name);
    if (isToken(value)) {
        to.append("=").append(value);
        return;
    }
    bool const isPrintable =
        std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c < '\x7f'; });
    if (!isPrintable) {
        to += "*=UTF-8''";
        appendPercentEncoded(to, value);
        return;
    }
    to += "=\"";
    for (char const c : value) {
        if (c == '"' || c == '\\') to += '\\';
        to += c;
    }
    to += '"';
}

}  // namespace postwire
