#include "foundation/QORByteBuffer.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "foundation/QORThrowable.h"

#include "foundation/AsciiText.h"

static char const kSourceFile[] = "QORByteBuffer";

namespace {

// Lengths are handed on as int, by the streams above all.
constexpr unsigned int kMaxLength = INT_MAX;

[[noreturn]] void raiseOutOfMemory(int line) {
    QOROutOfMemoryError(0, nullptr).hurl(QORFileLocation(kSourceFile, line), nullptr, "QOR_THROW");
}

// Storage comes from malloc rather than operator new, because realloc moves large blocks by
// remapping their pages.
char* allocate(unsigned int capacity) {
    if (capacity > kMaxLength) raiseOutOfMemory(__LINE__);
    void* const bytes = std::malloc(std::size_t{capacity} + 1);
    if (!bytes) raiseOutOfMemory(__LINE__);
    return static_cast<char*>(bytes);
}

// Pointers into different blocks may be compared as numbers only.
std::uintptr_t addressOf(char const* byte) { return reinterpret_cast<std::uintptr_t>(byte); }

}  // namespace

QORByteBuffer::QORByteBuffer(unsigned int initial, unsigned int growth)
    : m_bytes(allocate(initial)), m_length(0), m_capacity(initial), m_growth(growth), m_hex(false) {
    m_bytes[0] = '\0';
}

QORByteBuffer::QORByteBuffer(QORByteBuffer const& other)
    : m_bytes(allocate(other.m_capacity)),
      m_length(other.m_length),
      m_capacity(other.m_capacity),
      m_growth(other.m_growth),
      m_hex(other.m_hex) {
    std::memcpy(m_bytes, other.m_bytes, std::size_t{m_length} + 1);
}

QORByteBuffer::~QORByteBuffer() { std::free(m_bytes); }

QORByteBuffer& QORByteBuffer::operator<<(char const* text) {
    std::size_t const length = std::strlen(text);
    if (length > kMaxLength) raiseOutOfMemory(__LINE__);
    appendChars(text, static_cast<unsigned int>(length));
    return *this;
}

QORByteBuffer& QORByteBuffer::operator<<(char byte) {
    if (m_length == m_capacity) growTo(m_length + 1);
    m_bytes[m_length++] = byte;
    m_bytes[m_length] = '\0';
    return *this;
}

// A sign and ten digits at most. to_chars, because it knows no locale and takes no memory.
QORByteBuffer& QORByteBuffer::operator<<(int number) {
    char digits[16];
    char* const end = digits + sizeof digits;
    std::to_chars_result const made =
        m_hex ? std::to_chars(digits, end, static_cast<unsigned int>(number), 16)
              : std::to_chars(digits, end, number);
    appendChars(digits, static_cast<unsigned int>(made.ptr - digits));
    return *this;
}

void QORByteBuffer::appendChars(char const* bytes, unsigned int n) {
    // No bytes may come as a null pointer, which memcpy must not see.
    if (n == 0) return;
    if (n > m_capacity - m_length) {
        // The sum itself could wrap.
        if (n > kMaxLength - m_length) raiseOutOfMemory(__LINE__);
        // Growing may move bytes of our own that are to be appended.
        std::size_t const offset = addressOf(bytes) - addressOf(m_bytes);
        bool const ours = offset < m_length;
        growTo(m_length + n);
        if (ours) bytes = m_bytes + offset;
    }
    std::memcpy(m_bytes + m_length, bytes, n);
    m_length += n;
    m_bytes[m_length] = '\0';
}

void QORByteBuffer::reset() {
    m_length = 0;
    m_bytes[0] = '\0';
}

// The end first: it is what most lines need, and moves nothing.
unsigned int QORByteBuffer::trim() {
    char* begin = m_bytes;
    char* end = m_bytes + m_length;
    while (end != begin && isAsciiSpace(end[-1])) --end;
    while (begin != end && isAsciiSpace(*begin)) ++begin;
    m_length = static_cast<unsigned int>(end - begin);
    if (begin != m_bytes) std::memmove(m_bytes, begin, m_length);
    m_bytes[m_length] = '\0';
    return m_length;
}

void QORByteBuffer::setHexRadix(int hex) { m_hex = hex != 0; }

void QORByteBuffer::reserve(unsigned int total) {
    if (total > m_capacity) growTo(total);
}

// Beyond the room the caller can't have written, so such a length is a mistake in its counting.
void QORByteBuffer::setLength(unsigned int n) {
    if (n > m_capacity) raiseOutOfMemory(__LINE__);
    m_length = n;
    m_bytes[n] = '\0';
}

// Trebles at least: until n bytes stand, at most n / 2 have been moved, and the room not yet used
// is address space only. Where that much is not to be had, smaller steps are tried, down to what is
// needed now, so that appending stays linear as long as it can.
void QORByteBuffer::growTo(unsigned int total) {
    if (total > kMaxLength) raiseOutOfMemory(__LINE__);
    unsigned int const left = kMaxLength - m_capacity;
    unsigned int step = std::max(m_growth, m_capacity > left / 2 ? left : m_capacity * 2);
    step = std::min(step, left);
    for (;; step /= 4) {
        unsigned int const capacity = std::max(total, m_capacity + step);
        void* const bytes = std::realloc(m_bytes, std::size_t{capacity} + 1);
        if (bytes) {
            m_bytes = static_cast<char*>(bytes);
            m_capacity = capacity;
            return;
        }
        if (capacity == total) raiseOutOfMemory(__LINE__);
    }
}
