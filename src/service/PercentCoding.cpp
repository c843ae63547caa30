#include "service/PercentCoding.h"

#include "foundation/AsciiText.h"

namespace postwire {

std::string percentDecoded(std::string_view text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        bool const isEncoded = text[i] == '%' && i + 2 < text.size() && isHexDigit(text[i + 1]) &&
                               isHexDigit(text[i + 2]);
        bytes +=
            isEncoded
                ? static_cast<char>(hexDigitValue(text[i + 1]) * 16 + hexDigitValue(text[i + 2]))
                : text[i];
        if (isEncoded) i += 2;
    }
    return bytes;
}

void appendPercentEncoded(std::string& to, std::string_view bytes) {
    for (char const c : bytes) {
        if (isTokenCharacter(c) && std::string_view("*'%").find(c) == std::string_view::npos) {
            to += c;
            continue;
        }
        auto const byte = static_cast<unsigned char>(c);
        to += {'%', upperHexDigit(byte >> 4U), upperHexDigit(byte)};
    }
}

}  // namespace postwire
