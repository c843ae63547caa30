#pragma once

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

// Collects bytes in memory.
//
// Ownership: owns the bytes; a pointer from bytes() is good until the next write or reset.
class POSTWIRE_EXPORT ZULMemoryOutputStream : public ZULOutputStream {
public:
    // Room for `initial` bytes at first, growing geometrically by `growth` at least.
    ZULMemoryOutputStream(int initial, int growth);
    ~ZULMemoryOutputStream() override;

    void write(char const* data, int length) override;

    // The bytes, zero bytes among them, followed by a zero byte that does not count.
    char const* bytes() const { return m_bytes.str(); }
    int length() const { return static_cast<int>(m_bytes.pcount()); }

    // Length 0; the storage stays.
    void reset() { m_bytes.reset(); }

private:
    QORByteBuffer m_bytes;
};
