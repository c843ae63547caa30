#pragma once

#include <random>
#include <string>

#include "foundation/AsciiText.h"

namespace postwire {

// 128 random bits in 32 hexadecimal digits: no one who wrote a body before could know them.
inline std::string randomDigits() {
    std::random_device random;
    std::string text;
    for (int word = 0; word < 4; ++word)
        for (unsigned bits = random(), digit = 0; digit < 8; ++digit, bits >>= 4U)
            text += hexDigit(bits);
    return text;
}

}  // namespace postwire
