#include "foundation/ZULChunkedOutputStream.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <utility>

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULChunkedOutputStream";

namespace {

constexpr char kCrLf[] = "\r\n";
constexpr char kLastChunk[] = "0\r\n\r\n";
constexpr int kFirstRoom = 256;  // most bodies in chunks are short messages
constexpr unsigned int kPage = 4096;

}  // namespace

// A chunk and what stands around it must fit the buffer, so the largest sizes are cut a little.
ZULChunkedOutputStream::ZULChunkedOutputStream(ZULOutputStream& out, int size)
    : m_out(out),
      m_size(std::min(size, INT_MAX - kSizeLine - static_cast<int>(kPage) - 2)),
      m_state(State::Open),
      m_begin(kSizeLine),
      m_chunk(kFirstRoom, kFirstRoom) {
    if (size < 1)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    beginAt(m_begin);
}

ZULChunkedOutputStream::~ZULChunkedOutputStream() = default;

void ZULChunkedOutputStream::write(char const* data, int length) {
    if (length < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    requireWhole();
    // All the room that this write needs is taken before its first byte, so that running out of
    // memory can't leave a gap in the body.
    int const most = length < m_size - held() ? held() + length : m_size;
    bool const isLarge = held() == 0 && std::min(most, length) >= static_cast<int>(kPage);
    m_chunk.reserve((isLarge ? kSizeLine + kPage : m_begin) + static_cast<unsigned int>(most) + 2);
    m_state = State::Open;
    if (isLarge) beginApart(data);
    while (length > 0) {
        int const piece = std::min(length, m_size - held());
        m_chunk.appendChars(data, static_cast<unsigned int>(piece));
        data += piece;
        length -= piece;
        if (held() == m_size) writeHeld();
    }
}

void ZULChunkedOutputStream::flush() {
    requireWhole();
    if (held() > 0) writeHeld();
}

void ZULChunkedOutputStream::close() {
    ZULChunkedOutputStream::flush();
    if (m_state == State::Closed) return;
    send(kLastChunk, sizeof kLastChunk - 1);
    m_state = State::Closed;
}

void ZULChunkedOutputStream::reset() {
    beginAt(kSizeLine);
    m_state = State::Open;
}

void ZULChunkedOutputStream::giveUp() { m_state = State::Broken; }

void ZULChunkedOutputStream::raiseBroken() {
    ZULStreamException::raise(ZULStreamException::ZUL_ERR_BROKEN,
                              QORFileLocation(kSourceFile, __LINE__));
}

void ZULChunkedOutputStream::beginAt(unsigned int place) {
    m_chunk.setLength(place);
    m_begin = place;
}

// Half a page away from the place that the data have within theirs, because a copy between two
// addresses with the same last 12 bits takes up to twice the time.
void ZULChunkedOutputStream::beginApart(char const* data) {
    auto const wanted = reinterpret_cast<std::uintptr_t>(data) + kPage / 2;
    auto const first = reinterpret_cast<std::uintptr_t>(m_chunk.str()) + kSizeLine;
    beginAt(kSizeLine + static_cast<unsigned int>((wanted - first) % kPage));
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
    char* const chunk = m_chunk.str() + m_begin - lineLength;
    std::memcpy(chunk, line, static_cast<unsigned int>(lineLength));
    send(chunk, length);
    m_chunk.setLength(m_begin);
}
