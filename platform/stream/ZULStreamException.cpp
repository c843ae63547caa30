#include "foundation/ZULStreamException.h"

#include <new>

static char const kSourceFile[] = "ZULStreamException";

ZULStreamException::ZULStreamException(Fault fault)
    : QORException(QORSeverity::Error, fault, getMessageString(fault)) {}
ZULStreamException::ZULStreamException(ZULStreamException const&) = default;
ZULStreamException& ZULStreamException::operator=(ZULStreamException const&) = default;
ZULStreamException::~ZULStreamException() = default;

// As the core library does for its own throwables.
ZULStreamException* ZULStreamException::clone() const {
    try {
        return new ZULStreamException(*this);
    } catch (std::bad_alloc const&) {
        QOROutOfMemoryError(0, nullptr)
            .hurl(QORFileLocation(kSourceFile, __LINE__), nullptr, "QOR_THROW");
    }
}

void ZULStreamException::hurl(QORFileLocation const& where, char const* method, char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}

char const* ZULStreamException::getThrowableName() const { return "ZULStreamException"; }

void ZULStreamException::raise(Fault fault, QORFileLocation const& where) {
    ZULStreamException(fault).hurl(where, nullptr, "QOR_THROW");
}

// No default: the compiler tells of a fault without a text.
char const* ZULStreamException::getMessageString(Fault fault) {
    switch (fault) {
        case ZUL_ERR_END_OF_INPUT:
            return "the input ended early";
        case ZUL_ERR_NEGATIVE_COUNT:
            return "negative count, or a size below 1";
        case ZUL_ERR_CHUNK_SIZE:
            return "malformed chunk: expected 1 to 8 hexadecimal digits";
        case ZUL_ERR_CHUNK_TOO_LARGE:
            return "chunk size above 2147483647";
        case ZUL_ERR_CHUNK_END:
            return "malformed chunk: expected CRLF";
        case ZUL_ERR_CHUNK_EXTENSION:
            return "more than 4096 bytes behind a chunk size";
        case ZUL_ERR_FRAMING:
            return "too much chunk framing";
        case ZUL_ERR_TRAILER:
            return "malformed trailer line";
        case ZUL_ERR_TRAILER_TOO_LONG:
            return "more than 65536 bytes of trailer";
        case ZUL_ERR_LINE_TOO_LONG:
            return "line above the limit";
        case ZUL_ERR_BROKEN:
            return "bytes written before were lost";
    }
    return nullptr;
}
