#pragma once

#include <stdexcept>

#include "foundation/ZULInputStream.h"

// Raised by LimitedInputStream.
struct SizeLimitPassed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Hands out a limited number of bytes of another stream; a read beyond them raises SizeLimitPassed,
// unless the stream beneath has ended just there.
class LimitedInputStream : public ZULFilterInputStream {
public:
    LimitedInputStream(ZULInputStream& in, long long limit);
    ~LimitedInputStream() override;

    using ZULFilterInputStream::read;
    int read(char* bytes, int n) override;

    // Counts anew from here on.
    void setLimit(long long limit) { m_left = limit; }

    // What may still be read.
    long long left() const { return m_left; }

private:
    long long m_left;
};
