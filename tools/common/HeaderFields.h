#pragma once

#include <string>
#include <string_view>

// A header field as a person gives it.
struct HeaderField {
    std::string name;
    std::string value;
};

// No control character but the tab: neither CR nor LF, which would begin another field.
bool isFieldValue(std::string_view text);

// Takes "Name: value" apart. Raises std::invalid_argument with a text for a person when the name is
// no token or the value no field value.
HeaderField parseHeaderField(std::string const& text);
