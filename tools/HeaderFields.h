#pragma once

#include <string>
#include <string_view>

// A header field as a person gives it.
struct HeaderField {
    std::string name;
    std::string value;
};

// RFC 9110 section 5.6.2: at least one character, letters, digits and !#$%&'*+-.^_`|~ alone.
bool isToken(std::string_view text);

// No control character but the tab: neither CR nor LF, which would begin another field.
bool isFieldValue(std::string_view text);

// Takes "Name: value" apart. Raises std::invalid_argument with a text for a person when the name is
// no token or the value no field value.
HeaderField parseHeaderField(std::string const& text);

// Whether two texts are equal but for the case of ASCII letters.
bool equalIgnoringCase(std::string_view a, std::string_view b);

// Whether a comma-separated list holds the token, in any letter case.
bool listHolds(std::string_view list, std::string_view token);
