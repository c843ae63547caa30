#pragma once

#include <string>
#include <string_view>

// Text from a message, which may hold anything, made fit for another format. Bytes above 127 are
// taken for ISO 8859-1, as in header fields: they are then right in some cases and harmless in all.

// For an XML text, or an attribute value between double quotes: a reference where one is needed;
// '?' for control characters, which XML 1.0 can't hold.
std::string escapedForXml(std::string_view text);

// For a JSON text, without the quotes around it.
std::string escapedForJson(std::string_view text);

// For a terminal: '?' for control characters, which could steer it. Bytes above 127 stay.
std::string printable(std::string_view text);
