#include "tools/trace/BodyText.h"

#include <algorithm>
#include <array>

#include "foundation/AsciiText.h"
#include "tools/common/TextEscapes.h"

namespace {

constexpr std::size_t kDeepest = 30;  // of the indentation

// An element's tag, a comment, a text between CDATA's brackets, an instruction; or the text up to
// the next of these.
std::string_view takeToken(std::string_view& xml) {
    static constexpr std::array<std::array<std::string_view, 2>, 4> kEnds{
        {{"<!--", "-->"}, {"<![CDATA[", "]]>"}, {"<?", "?>"}, {"<", ">"}}};
    std::size_t size = std::min(xml.find('<'), xml.size());
    if (size == 0) {
        for (auto const& [begin, end] : kEnds) {
            if (xml.substr(0, begin.size()) != begin) continue;
            size = std::min(xml.find(end, begin.size()), xml.size() - end.size()) + end.size();
            break;
        }
    }
    std::string_view const token = xml.substr(0, size);
    xml.remove_prefix(token.size());
    return token;
}

}  // namespace

std::string markupOfText(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        std::size_t const size = std::min(text.find_first_of("\n\t"), text.size());
        std::string_view line = text.substr(0, size);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        result += escapedForXml(line);
        if (size < text.size()) result += text[size];
        text.remove_prefix(std::min(size + 1, text.size()));
    }
    return result;
}

std::string markupOfXml(std::string_view xml) {
    std::string result;
    std::size_t depth = 0;
    bool sameLine = true;  // as what came before
    while (!xml.empty()) {
        std::string_view const token = withoutSpaces(takeToken(xml));
        if (token.empty()) continue;
        bool const tag = token.size() > 2 && token[0] == '<' && token[1] != '!' && token[1] != '?';
        bool const closes = tag && token[1] == '/';
        if (closes && depth > 0) --depth;
        bool const text = token[0] != '<';
        if (!(sameLine && (closes || text)) && !result.empty())
            result.append("\n").append(std::min(depth, kDeepest) * 2, ' ');
        result += markupOfText(token);
        bool const opens = tag && !closes && token[token.size() - 2] != '/';
        if (opens) ++depth;
        sameLine = opens || (text && sameLine);
    }
    return result;
}

std::string markupOfHex(std::string_view bytes) {
    std::string result;
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        std::string_view const line = bytes.substr(at, 16);
        for (int shift = 12; shift >= 0; shift -= 4)
            result += hexDigit(static_cast<unsigned>(at >> shift));
        result += "  ";
        std::string printed;
        for (std::size_t i = 0; i < 16; ++i) {
            auto const byte = static_cast<unsigned char>(i < line.size() ? line[i] : ' ');
            result += i < line.size() ? hexDigit(byte >> 4U) : ' ';
            result += i < line.size() ? hexDigit(byte) : ' ';
            result += i == 7 ? "  " : " ";
            printed += byte >= ' ' && byte < 0x7F ? static_cast<char>(byte) : '.';
        }
        result.append(" ").append(escapedForXml(printed)).append("\n");
    }
    return result;
}

std::string_view pictureType(std::string_view bytes) {
    static constexpr std::array<std::array<std::string_view, 2>, 4> kTypes{
        {{"\x89PNG\r\n\x1A\n", "image/png"},
         {"\xFF\xD8\xFF", "image/jpeg"},
         {"GIF87a", "image/gif"},
         {"GIF89a", "image/gif"}}};
    for (auto const& [begin, type] : kTypes)
        if (bytes.substr(0, begin.size()) == begin) return type;
    bool const webp = bytes.substr(0, 4) == "RIFF" &&
                      bytes.substr(std::min<std::size_t>(8, bytes.size()), 4) == "WEBP";
    return webp ? "image/webp" : "";
}

BodyKind kindOf(std::string_view bytes) {
    auto const isOdd = [](char c) { return isControlCharacter(c) && !isAsciiSpace(c); };
    if (std::any_of(bytes.begin(), bytes.end(), isOdd)) return BodyKind::Hex;
    std::string_view const text = withoutSpaces(bytes);
    return text.substr(0, 1) == "<" || text.substr(0, 4) == "\xEF\xBB\xBF<" ? BodyKind::Xml
                                                                            : BodyKind::Text;
}
