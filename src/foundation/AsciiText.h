#pragma once

// Characters as HTTP sees them: ASCII, whatever the process's locale.

// Blank, \t, \n, \v, \f and \r.
constexpr bool isAsciiSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

constexpr char asciiLowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
