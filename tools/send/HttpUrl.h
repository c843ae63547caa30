#pragma once

#include <string>

// Where a request goes.
struct HttpUrl {
    std::string host;
    int port = 80;
    std::string target = "/";  // path and query
};

// Takes "http://host[:port][/path][?query][#fragment]" apart; the fragment is the client's own and
// is left out. Raises std::invalid_argument with a text for a person.
HttpUrl parseHttpUrl(std::string const& text);

// The value of the header field Host, RFC 9110 section 7.2.
std::string hostField(HttpUrl const& url);
