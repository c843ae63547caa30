#include "foundation/QORUtConvert.h"

#include "foundation/AsciiText.h"

// Not tolower: in some locales it changes bytes above 127, or makes a dotless i of an I, and header
// names would no longer meet.
void QORUtConvert::strlwr(char* text) {
    for (; *text; ++text) *text = asciiLowerCase(*text);
}
