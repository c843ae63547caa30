#include "foundation/ZULBufferedOutputStream.h"

#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULBufferedOutputStream";

ZULBufferedOutputStream::ZULBufferedOutputStream(ZULOutputStream& out, int size)
    : m_out(out), m_size(size), m_held(0, 256) {
    if (size < 1)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
}

ZULBufferedOutputStream::~ZULBufferedOutputStream() = default;

void ZULBufferedOutputStream::write(char const* data, int length) {
    if (length < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, __LINE__));
    // Order counts: what is held goes out before bytes that pass by it.
    if (length > m_size - static_cast<int>(m_held.pcount())) {
        sendHeld();
        if (length >= m_size) return m_out.write(data, length);
    }
    m_held.appendChars(data, static_cast<unsigned int>(length));
}

void ZULBufferedOutputStream::flush() {
    sendHeld();
    m_out.flush();
}

// Its own flush, whatever a derived class makes of it: the bytes held are known here.
void ZULBufferedOutputStream::close() { ZULBufferedOutputStream::flush(); }

void ZULBufferedOutputStream::sendHeld() {
    if (m_held.pcount() == 0) return;
    // Also where the write raises: part of the bytes may be on the wire already.
    struct Emptying {
        ~Emptying() { held.reset(); }
        QORByteBuffer& held;
    } const emptying{m_held};
    m_out.write(m_held.str(), static_cast<int>(m_held.pcount()));
}
