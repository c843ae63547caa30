#include "foundation/QORUtConvert.h"

void QORUtConvert::strlwr(char* text) {
    for (; *text; ++text)
        if (*text >= 'A' && *text <= 'Z') *text = static_cast<char>(*text - 'A' + 'a');
}
