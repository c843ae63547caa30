#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

class HTTPMessage;

// The line between the parts of a multipart message, without its leading "--".

// 1 to 70 letters, digits and "'+_.-": what RFC 2046 section 5.1.1 allows and a header field needs
// no quotes for.
bool isPlainBoundary(std::string_view text);

// A boundary of 128 random bits: no body written before it was made holds it.
std::string makeBoundary();

// Whether "--" and the boundary stand anywhere in what the stream still holds. A reader that looks
// for delimiters would end the part there.
bool boundaryOccurs(std::string const& boundary, std::istream& bytes);

// Whether they stand in the body of a part, or begin the boundary of a part that has parts.
bool boundaryOccurs(std::string const& boundary, HTTPMessage& message);
