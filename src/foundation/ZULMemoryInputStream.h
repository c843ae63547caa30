#pragma once

#include "foundation/Export.h"
#include "foundation/ZULInputStream.h"

// Reads from memory.
//
// Ownership: the bytes are borrowed, not copied, and must outlive the stream.
class POSTWIRE_EXPORT ZULMemoryInputStream : public ZULInputStream {
public:
    ZULMemoryInputStream(char const* bytes, int length);
    ~ZULMemoryInputStream() override;

    using ZULInputStream::read;
    int read(char* bytes, int n) override;

private:
    char const* m_next;
    int m_left;
};
