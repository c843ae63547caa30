#include "service/Url.h"

// The library's sources, compiled here: it then is the same for every architecture, and no program
// needs it.
#include <boost/url/src.hpp>

#include "foundation/AsciiText.h"
#include "service/ClientError.h"

namespace postwire {

namespace {

[[noreturn]] void refuse(std::string const& why, std::string_view url) {
    std::string shown(url.substr(0, 200));
    for (char& c : shown)
        if (c < ' ' || c > '~') c = '?';
    throw ClientError(ClientError::Code::usage, why + ": " + shown);
}

// boost::urls takes what follows the host as port only as far as it has digits, and drops the rest.
bool hasAllOfAuthority(boost::urls::url_view const& url, std::string_view text) {
    std::size_t const begin = text.find("//");
    if (begin == std::string_view::npos) return false;
    std::string_view const rest = text.substr(begin + 2);
    return rest.substr(0, rest.find_first_of("/?#")) == std::string_view(url.encoded_authority());
}

int portOf(boost::urls::url_view const& url, int otherwise) {
    if (!url.has_port() || url.port().empty()) return otherwise;
    return url.port_number();
}

}  // namespace

Url parseUrl(std::string_view text) {
    auto const parsed = boost::urls::parse_uri(text);
    if (!parsed) refuse("not a URL", text);
    boost::urls::url_view const& url = *parsed;
    boost::urls::scheme const scheme = url.scheme_id();
    if (scheme != boost::urls::scheme::http && scheme != boost::urls::scheme::https)
        refuse("a URL begins with http:// or https://", text);
    if (!hasAllOfAuthority(url, text)) refuse("not a URL", text);
    Url result;
    result.isTls = scheme == boost::urls::scheme::https;
    int const usual = result.isTls ? 443 : 80;
    result.host = url.host_address();  // without brackets
    if (result.host.empty()) refuse("a URL names a host", text);
    // Of a name only what can stand in Host and goes to the resolver as it is.
    if (result.host.find_first_of(std::string_view("\0 \r\n/@", 6)) != std::string::npos)
        refuse("not the name of a host", text);
    result.port = portOf(url, usual);
    if (result.port == 0) refuse("no port between 1 and 65535", text);
    result.authority = std::string(url.encoded_host());
    if (result.port != usual) result.authority += ":" + std::to_string(result.port);
    result.target = std::string(url.encoded_path());
    if (result.target.empty()) result.target = "/";
    if (url.has_query()) result.target.append("?").append(std::string(url.encoded_query()));
    if (url.has_userinfo()) {
        result.credentials = url.user();
        result.credentials.append(":").append(url.password());
    }
    return result;
}

std::string basicCredentials(std::string_view credentials) {
    std::string text = "Basic ";
    appendBase64(text, credentials);
    return text;
}

}  // namespace postwire
