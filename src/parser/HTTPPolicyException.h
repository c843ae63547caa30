#pragma once

#include "foundation/Export.h"

#include "foundation/HTTPException.h"

// What the parser raises under a policy beside the codes 1000 to 1010.
//
// Rule: each error carries one of the codes below and, as its one message, the code's text.
class POSTWIRE_EXPORT HTTPPolicyException : public HTTPException {
public:
    enum PolicyErrorCode : int {
        HTTP_ERR_POLICY_FIRST = 1100,
        // The head, by strictFraming.
        HTTP_ERR_START_LINE = HTTP_ERR_POLICY_FIRST,  // RFC 9112 sections 3 and 4
        HTTP_ERR_HEADER_LINE,  // no colon, or a name that is no token, RFC 9112 section 5
        HTTP_ERR_SPACE_BEFORE_COLON,
        HTTP_ERR_FOLDED_LINE,        // begins with white space, RFC 9112 section 5.2
        HTTP_ERR_CONTROL_CHARACTER,  // within a line, the tab excepted
        HTTP_ERR_LENGTH_NOT_DIGITS,
        HTTP_ERR_LENGTH_REPEATED,    // with another value
        HTTP_ERR_LENGTH_AND_CODING,  // by any policy: RFC 9112 section 6.3
        HTTP_ERR_UNKNOWN_CODING,     // not chunked
        HTTP_ERR_CODING_REPEATED,
        HTTP_ERR_CODING_IN_HTTP_1_0,
        HTTP_ERR_CONTENT_TYPE_REPEATED,
        HTTP_ERR_HOST_REPEATED,
        HTTP_ERR_BAD_BOUNDARY,  // above 70 characters, repeated, malformed, or not the same to all
        // The body.
        HTTP_ERR_BODY_CUT,      // the input ends inside it
        HTTP_ERR_BODY_OVERRUN,  // a part declares more than is left of the body around it
        HTTP_ERR_BODY_LEFT,     // more than 64 KiB behind what was read of it
        HTTP_ERR_NO_DELIMITER,  // behind a part with a length or chunks
        HTTP_ERR_NESTING,       // parts of parts of parts
        HTTP_ERR_CHUNK_SIZE,
        HTTP_ERR_CHUNK_TOO_LARGE,
        HTTP_ERR_CHUNK_END,
        HTTP_ERR_CHUNK_EXTENSION,
        HTTP_ERR_TRAILER,
        // The limits.
        HTTP_ERR_START_LINE_TOO_LONG,
        HTTP_ERR_HEADER_LINE_TOO_LONG,
        HTTP_ERR_HEAD_TOO_LARGE,
        HTTP_ERR_TOO_MANY_HEADERS,
        HTTP_ERR_PART_HEAD_TOO_LARGE,
        HTTP_ERR_TOO_MANY_PARTS,
        HTTP_ERR_BODY_TOO_LARGE,
        HTTP_ERR_CHUNK_FRAMING,
        // The head again, by strictFraming.
        HTTP_ERR_TARGET,    // neither with a path nor absolute, RFC 9112 section 3.2
        HTTP_ERR_NO_HOST,   // in an HTTP/1.1 request, RFC 9112 section 3.2
        HTTP_ERR_BAD_HOST,  // no host and port, RFC 9110 section 7.2
        HTTP_ERR_BARE_LF,   // at the end of a line, RFC 9112 section 2.2
    };

    explicit HTTPPolicyException(PolicyErrorCode code);
    HTTPPolicyException(HTTPPolicyException const&);
    HTTPPolicyException& operator=(HTTPPolicyException const&);
    ~HTTPPolicyException() override;

    HTTPPolicyException* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;

    // The text of a code: static; null for a value that is none of the above.
    static char const* getMessageString(PolicyErrorCode code);

    // The status of the answer to a request that ended in this error: 400, 405, 413, 414, 431, 501
    // or 505; 500 for an error whose code is neither one of the above nor 1000 to 1010.
    static int getHttpStatus(HTTPException const& error);
};
