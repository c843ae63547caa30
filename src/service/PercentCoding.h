#pragma once

#include <string>
#include <string_view>

namespace postwire {

// Percent-encoded text, RFC 3986 section 2.1. A "%" without two digits behind it stands for itself.
std::string percentDecoded(std::string_view text);

// All but the characters that RFC 8187 calls attr-char.
void appendPercentEncoded(std::string& to, std::string_view bytes);

}  // namespace postwire
