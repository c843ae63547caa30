#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The body of a message as markup. Nothing of it can become an element, an attribute or a script.

// The text with its lines, control characters as '?'.
std::string markupOfText(std::string_view text);

// An element on a line, indented by its depth. Good enough to look at; no judge of XML.
std::string markupOfXml(std::string_view xml);

// Sixteen bytes a line: their place, their digits, and what is printable of them.
std::string markupOfHex(std::string_view bytes);

// The media type of a picture that browsers show and that can do nothing but be shown, by its first
// bytes; empty for anything else.
std::string_view pictureType(std::string_view bytes);

enum class BodyKind { Text, Xml, Hex };
BodyKind kindOf(std::string_view bytes);
