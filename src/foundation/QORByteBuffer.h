#pragma once

#include "foundation/Export.h"

// A growable run of bytes with a length, a capacity and a number format.
//
// Ownership: the buffer owns its storage; a pointer from str() is good until the buffer next
//   grows or is destroyed.
// Units: sizes and positions are bytes.
// Raises: QOROutOfMemoryError when the storage can't grow or a length would pass 2^31 - 1; the
//   buffer is then as it was before the call.
// Rule: the bytes held are always followed by a zero byte that does not count, so that str() can
//   be passed on as text. The storage grows geometrically: n appends cost O(n) in all.
class POSTWIRE_EXPORT QORByteBuffer {
public:
    // An empty buffer with room for `initial` bytes, which never grows by less than `growth`.
    QORByteBuffer(unsigned int initial, unsigned int growth);

    // A deep copy: bytes, capacity, growth step and number format.
    QORByteBuffer(QORByteBuffer const& other);
    QORByteBuffer& operator=(QORByteBuffer const&) = delete;
    ~QORByteBuffer();

    // Appends a zero-terminated text without its terminator.
    QORByteBuffer& operator<<(char const* text);
    QORByteBuffer& operator<<(char byte);

    // Appends a number as text: decimal with a sign where it is negative, or, after
    // setHexRadix(1), the lower-case hexadecimal digits of its 32-bit pattern, without prefix, sign
    // or leading zeros.
    QORByteBuffer& operator<<(int number);

    // 1: numbers are appended in hexadecimal, 0: in decimal. Stays until changed.
    void setHexRadix(int hex);

    // Appends exactly n bytes, zero bytes included. They may lie inside this buffer.
    void appendChars(char const* bytes, unsigned int n);

    // Length 0; capacity and number format stay.
    void reset();

    // Removes white space at both ends, line terminators included, and returns the length that
    // remains. White space is blank, \t, \n, \v, \f, \r, whatever the process's locale.
    unsigned int trim();

    // Makes room for `total` bytes in all; never shrinks.
    void reserve(unsigned int total);

    // Takes the first n bytes of the storage as content, as after writing directly at
    // str() + pcount(). Raises QOROutOfMemoryError when n is above the room reserved.
    void setLength(unsigned int n);

    char* str() const { return m_bytes; }
    unsigned int pcount() const { return m_length; }

    // The bytes there is room for in all.
    unsigned int capacity() const { return m_capacity; }

private:
    void growTo(unsigned int total);

    char* m_bytes;  // m_capacity + 1 bytes: room for the terminating zero is always kept
    unsigned int m_length;
    unsigned int m_capacity;
    unsigned int m_growth;
    bool m_hex;
};
