#pragma once

#include <string>
#include <string_view>

namespace postwire {

// What a reference stands for that is found in a text with that base, RFC 3986 section 5.2.
std::string resolvedUrl(std::string_view base, std::string_view reference);

}  // namespace postwire
