#include "foundation/ZULMemoryInputStream.h"

#include <algorithm>
#include <cstring>

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULMemoryInputStream";

ZULMemoryInputStream::ZULMemoryInputStream(char const* bytes, int length)
    : m_next(bytes), m_left(length) {
    if (length < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
}

ZULMemoryInputStream::~ZULMemoryInputStream() = default;

int ZULMemoryInputStream::read(char* bytes, int n) {
    if (n < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    if (n == 0) return 0;  // at the end as well
    if (m_left == 0) return -1;
    int const given = std::min(n, m_left);
    std::memcpy(bytes, m_next, static_cast<unsigned int>(given));
    m_next += given;
    m_left -= given;
    return given;
}
