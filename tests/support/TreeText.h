#pragma once

#include <string>

class HTTPMessage;

// A message tree as text, as the .tree files of tests/data/captured have it below their first
// line: a line for each header, its name in lower case, in collection order; then "body" with what
// bodyText gives, or "part" for each part, with its own lines below it. Lines are indented by
// `indent` blanks, and by two more at each level. Writing it changes the tree's framing headers.
std::string treeText(HTTPMessage& message, int indent = 2);

// The bytes with those outside ASCII's printable range as \x0d.
std::string printable(std::string const& bytes);

// "5 3610a686 hello": size, CRC-32 and the first 16 bytes, printable.
std::string bodyText(std::string const& bytes);
