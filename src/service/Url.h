#pragma once

#include <string>
#include <string_view>

namespace postwire {

// Where a request goes.
struct Url {
    bool isTls = false;
    std::string host;  // a name or an address, of IPv6 without its brackets
    int port = 80;
    std::string authority;     // for the Host field: the port is left out where it is the scheme's
    std::string target = "/";  // path and query; the fragment is the client's own
    std::string credentials;   // "user:password", decoded
};

// Takes "http[s]://[user[:password]@]host[:port][/path][?query][#fragment]" apart. Raises
// ClientError::Code::usage with a text for a person.
Url parseUrl(std::string_view text);

// The value of Authorization or Proxy-Authorization, RFC 7617.
std::string basicCredentials(std::string_view credentials);

}  // namespace postwire
