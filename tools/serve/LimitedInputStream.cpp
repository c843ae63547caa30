#include "tools/serve/LimitedInputStream.h"

#include <algorithm>

LimitedInputStream::LimitedInputStream(ZULInputStream& in, long long limit)
    : ZULFilterInputStream(in), m_left(limit) {}

LimitedInputStream::~LimitedInputStream() = default;

int LimitedInputStream::read(char* bytes, int n) {
    if (n <= 0) return beneath().read(bytes, n);
    char beyond;
    if (m_left == 0) {
        // The end may stand exactly at the limit; one byte tells.
        if (beneath().read(&beyond, 1) == -1) return -1;
        throw SizeLimitPassed("the message is larger than this server takes");
    }
    int const got = beneath().read(bytes, static_cast<int>(std::min<long long>(n, m_left)));
    if (got > 0) m_left -= got;
    return got;
}
