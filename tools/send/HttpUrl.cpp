#include "tools/send/HttpUrl.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

#include "foundation/AsciiText.h"
#include "tools/common/TextEscapes.h"

namespace {

[[noreturn]] void refuse(std::string const& why, std::string const& url) {
    throw std::invalid_argument(why + ": " + printable(url));
}

// Letters, digits, '-', '.' and '_': names and IPv4 addresses, which is what sockets connect to.
bool isHost(std::string_view host) {
    return !host.empty() && isToken(host) &&
           host.find_first_of("!#$%&'*+^`|~") == std::string_view::npos;
}

int parsePort(std::string_view digits) {
    int port = 0;
    char const* const end = digits.data() + digits.size();
    auto const [rest, error] = std::from_chars(digits.data(), end, port);
    return error == std::errc() && rest == end && port > 0 && port < 65536 ? port : 0;
}

}  // namespace

HttpUrl parseHttpUrl(std::string const& text) {
    static constexpr std::string_view kScheme = "http://";
    if (!beginsInAnyCase(text, kScheme)) refuse("a URL begins with http://", text);
    std::string_view rest(text);
    rest.remove_prefix(kScheme.size());
    rest = rest.substr(0, rest.find('#'));
    bool const bad = std::any_of(rest.begin(), rest.end(), [](char c) {
        return static_cast<unsigned char>(c) <= 0x20 || static_cast<unsigned char>(c) >= 0x7f;
    });
    if (bad) refuse("a URL holds no blanks, control characters or bytes above 127", text);

    std::string_view const authority = rest.substr(0, rest.find_first_of("/?"));
    HttpUrl url;
    std::size_t const colon = authority.find(':');
    url.host = authority.substr(0, colon);
    if (!isHost(url.host)) refuse("no host name or IPv4 address", text);
    if (colon != std::string_view::npos) url.port = parsePort(authority.substr(colon + 1));
    if (url.port == 0) refuse("no port between 1 and 65535", text);
    rest.remove_prefix(authority.size());
    if (!rest.empty()) url.target = (rest.front() == '?' ? "/" : "") + std::string(rest);
    return url;
}

std::string hostField(HttpUrl const& url) {
    return url.port == 80 ? url.host : url.host + ":" + std::to_string(url.port);
}
