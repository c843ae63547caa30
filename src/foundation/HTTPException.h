#pragma once

#include "foundation/Export.h"
#include "foundation/QORThrowable.h"

// What the parser raises when its input is not an acceptable HTTP message, or ends too early.
//
// Rule: an error raised by the parser carries one of the codes below and, as its one message, the
//   code's text.
class POSTWIRE_EXPORT HTTPException : public QORException {
public:
    enum plexaErrorCode : int {
        HTTP_ERR_FIRST = 1000,
        HTTP_ERR_METHOD_NOT_POST = HTTP_ERR_FIRST,
        HTTP_ERR_VERSION,                // neither HTTP/1.1 nor HTTP/1.0
        HTTP_ERR_BAD_REQUEST_LINE,       // fewer than three words
        HTTP_ERR_BAD_RESPONSE_LINE,      // fewer than three words: no reason phrase, too
        HTTP_ERR_BAD_CONTENT_TYPE,       // empty
        HTTP_ERR_NO_BOUNDARY,            // a multipart type must name one, RFC 2046 section 5.1.1
        HTTP_ERR_BAD_CONTENT_LENGTH,     // empty
        HTTP_ERR_BAD_TRANSFER_ENCODING,  // empty
        HTTP_ERR_BAD_CHUNK_SIZE,         // raised by no operation: the chunk decoder has its own
        HTTP_ERR_END_OF_STREAM,          // before the empty line that ends the header lines
        HTTP_ERR_MISSING_BOUNDARY,       // before the closing boundary line
    };

    explicit HTTPException(long code);
    HTTPException(QORSeverity severity, long code);
    explicit HTTPException(char const* text);
    HTTPException(QORSeverity severity, char const* text);
    HTTPException(HTTPException const&);
    HTTPException& operator=(HTTPException const&);
    ~HTTPException() override;

    HTTPException* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;

    // Adds a copy of the message.
    HTTPException& operator<<(QORMessageBase const& message);

    // The text of a code: static; null for a value that is none of the above.
    static char const* getMessageString(plexaErrorCode code);
};
