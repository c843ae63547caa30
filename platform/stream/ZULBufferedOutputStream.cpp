#include "foundation/ZULBufferedOutputStream.h"

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULBufferedOutputStream";

ZULBufferedOutputStream::ZULBufferedOutputStream(ZULOutputStream& out, int size)
    : m_out(out), m_size(size), m_held(0, 256), m_broken(false) {
    if (size < 1)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
}

ZULBufferedOutputStream::~ZULBufferedOutputStream() = default;

void ZULBufferedOutputStream::write(char const* data, int length) {
    if (length < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    requireWhole();
    // Order counts: what is held goes out before bytes that pass by it.
    if (length > m_size - static_cast<int>(m_held.pcount())) {
        sendHeld();
        if (length >= m_size) return send(data, length);
    }
    m_held.appendChars(data, static_cast<unsigned int>(length));
}

void ZULBufferedOutputStream::flush() {
    requireWhole();
    sendHeld();
    m_broken = true;  // stays so where the flush raises
    m_out.flush();
    m_broken = false;
}

// Its own flush, whatever a derived class makes of it: the bytes held are known here.
void ZULBufferedOutputStream::close() { ZULBufferedOutputStream::flush(); }

void ZULBufferedOutputStream::sendHeld() {
    if (m_held.pcount() == 0) return;
    send(m_held.str(), static_cast<int>(m_held.pcount()));
    m_held.reset();
}

void ZULBufferedOutputStream::send(char const* bytes, int length) {
    m_broken = true;  // stays so where the write raises
    m_out.write(bytes, length);
    m_broken = false;
}

void ZULBufferedOutputStream::reset() {
    m_held.reset();
    m_broken = false;
}

void ZULBufferedOutputStream::requireWhole() const {
    if (m_broken)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_BROKEN,
                                  QORFileLocation(kSourceFile, __LINE__));
}
