#include "foundation/HTTPException.h"

#include <iterator>

#include "foundation/GuardedAllocation.h"

static char const kSourceFile[] = "HTTPException";

// In the order of the codes, the first of which is HTTP_ERR_FIRST.
static char const* const http_messages[] = {
    "method is not POST",
    "HTTP version must be 1.1",
    "bad 1st line of request",
    "bad 1st line of response",
    "malformed Content-Type header",
    "multipart Content-Type header has no boundary attribute",
    "malformed Content-Length header",
    "malformed Transfer-Encoding header",
    "malformed: expected a chunk size",
    "end of input stream",
    "the input stream did not have an expected MIME boundary",
};

HTTPException::HTTPException(long code) : QORException(code) {}

HTTPException::HTTPException(QORSeverity severity, long code) : QORException(severity, code) {}

HTTPException::HTTPException(char const* text) : QORException(text) {}

HTTPException::HTTPException(QORSeverity severity, char const* text)
    : QORException(severity, text) {}

HTTPException::HTTPException(HTTPException const&) = default;

HTTPException& HTTPException::operator=(HTTPException const& other) {
    if (this != &other) QORException::operator=(other);
    return *this;
}

HTTPException::~HTTPException() = default;

HTTPException* HTTPException::clone() const {
    return guardedNew<HTTPException>(QORFileLocation(kSourceFile, __LINE__), *this).release();
}

void HTTPException::hurl(QORFileLocation const& where, char const* method, char const* macro) {
    addBackTrace(where, method, macro);
    throw HTTPException(*this);
}

char const* HTTPException::getThrowableName() const { return "HTTPException"; }

HTTPException& HTTPException::operator<<(QORMessageBase const& message) {
    QORException::operator<<(message);
    return *this;
}

char const* HTTPException::getMessageString(plexaErrorCode code) {
    if (code < HTTP_ERR_FIRST) return nullptr;  // before the difference, which could overflow
    auto const index = static_cast<std::size_t>(code - HTTP_ERR_FIRST);
    return index < std::size(http_messages) ? http_messages[index] : nullptr;
}
