#include "foundation/ZULMemoryOutputStream.h"

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULMemoryOutputStream";

namespace {

// Before the conversion: as unsigned, -1 is a size that only fails for want of memory.
unsigned int checkedSize(int n, int line) {
    if (n < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, line));
    return static_cast<unsigned int>(n);
}

}  // namespace

ZULMemoryOutputStream::ZULMemoryOutputStream(int initial, int growth)
    : m_bytes(checkedSize(initial, __LINE__), checkedSize(growth, __LINE__)) {}

ZULMemoryOutputStream::~ZULMemoryOutputStream() = default;

void ZULMemoryOutputStream::write(char const* data, int length) {
    m_bytes.appendChars(data, checkedSize(length, __LINE__));
}
