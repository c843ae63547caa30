#pragma once

#include "foundation/Export.h"

// Text conversions.
class POSTWIRE_EXPORT QORUtConvert {
public:
    // Lower-cases a zero-terminated text in place. ASCII letters alone change, whatever the
    // process's locale.
    static void strlwr(char* text);
};
