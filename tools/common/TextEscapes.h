#pragma once

#include <string>
#include <string_view>

// Text from a message, a file name or a command line, which may hold anything, made fit for another
// format. It is read as UTF-8, RFC 3629; a byte that is none stands for a character of ISO 8859-1,
// as in header fields, but before a terminal.

// For an XML text, or an attribute value between double quotes: a reference where one is needed;
// '?' for what XML 1.0 can't hold.
std::string escapedForXml(std::string_view text);

// For a JSON text, without the quotes around it: UTF-8 stays, but for control characters; a byte
// that is none becomes an escape.
std::string escapedForJson(std::string_view text);

// For a terminal: '?' for control characters, which could steer it, and for bytes that are no
// UTF-8.
std::string printable(std::string_view text);

// The same for a text of several lines, each of which then ends in LF.
std::string printableLines(std::string_view text);
