#include "foundation/ZULChunkedOutputStream.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <utility>

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULChunkedOutputStream";

namespace {

constexpr char kCrLf[] = "\r\n";
constexpr char kLastChunk[] = "0\r\n\r\n";
constexpr int kFirstRoom = 256;  // most bodies in chunks are short messages

}  // namespace

// A chunk and its framing must fit the buffer, so the largest sizes are cut a little.
ZULChunkedOutputStream::ZULChunkedOutputStream(ZULOutputStream& out, int size)
    : m_out(out),
      m_size(std::min(size, INT_MAX - kSizeLine - 2)),
      m_open(false),
      m_chunk(kFirstRoom, kFirstRoom) {
    if (size < 1)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    m_chunk.setLength(kSizeLine);
}

ZULChunkedOutputStream::~ZULChunkedOutputStream() = default;

void ZULChunkedOutputStream::write(char const* data, int length) {
    if (length < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    // All the room that this write needs is taken before its first byte, so that running out of
    // memory can't leave a gap in the body.
    int const most = length < m_size - held() ? held() + length : m_size;
    m_chunk.reserve(static_cast<unsigned int>(kSizeLine + most + 2));
    m_open = true;
    while (length > 0) {
        int const piece = std::min(length, m_size - held());
        m_chunk.appendChars(data, static_cast<unsigned int>(piece));
        data += piece;
        length -= piece;
        if (held() == m_size) writeHeld();
    }
}

void ZULChunkedOutputStream::flush() {
    if (held() > 0) writeHeld();
}

void ZULChunkedOutputStream::close() {
    if (!m_open) return;
    ZULChunkedOutputStream::flush();
    // Closed even if this fails: a second last chunk would only confuse the reader.
    m_open = false;
    m_out.write(kLastChunk, sizeof kLastChunk - 1);
}

void ZULChunkedOutputStream::reset() {
    m_chunk.setLength(kSizeLine);
    m_open = false;
}

// The size line goes into the room before the data and ends where they begin, so that they are not
// moved, whatever its length.
void ZULChunkedOutputStream::writeHeld() {
    char line[kSizeLine];
    char* const end = std::to_chars(line, line + sizeof line, held(), 16).ptr;
    std::memcpy(end, kCrLf, 2);
    int const lineLength = static_cast<int>(end - line) + 2;
    int const length = lineLength + held() + 2;
    m_chunk.appendChars(kCrLf, 2);
    char* const chunk = m_chunk.str() + kSizeLine - lineLength;
    std::memcpy(chunk, line, static_cast<unsigned int>(lineLength));

    struct Emptying {
        ~Emptying() { chunk.setLength(kSizeLine); }
        QORByteBuffer& chunk;
    } const emptying{m_chunk};
    m_open = false;  // stays so where the write raises
    m_out.write(chunk, length);
    m_open = true;
}
