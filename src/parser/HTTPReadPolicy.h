#pragma once

#include "foundation/Export.h"

#include "foundation/HTTPException.h"

// How HTTPParser and HTTPMessageReader read, beyond what they do by default: for messages that the
// default reading can't finish, and for peers that are not trusted. By default nothing is changed.
//
// Units: bytes, but for counts of headers and parts. 0: no limit.
// Raises: reading by a policy raises HTTPPolicyException where a rule or limit below is broken;
//   faults of chunked coding and of lengths that do not fit come as the same type, so that one
//   handler for HTTPException serves all bad input. A limit raises before the memory is taken.
struct POSTWIRE_EXPORT HTTPReadPolicy {
    // Everything on, with limits for a server that anyone may reach.
    static HTTPReadPolicy hardened();

    // A level that declares a length is read through a stream that ends there, and parts that run
    // past it are an error. What a level's events leave unread of a body with a length or chunks is
    // dropped, up to 64 KiB; more is an error. Nothing behind the message is touched.
    bool boundMessage = false;

    // A part without length and chunks ends before the CRLF that precedes the next delimiter, RFC
    // 2046 section 5.1.1; a part with either must be followed by a delimiter. A delimiter is a line
    // of its own between CRLFs, but for white space behind it; the last one may end with its level.
    bool partsEndAtBoundary = false;

    // RFC 9112 and 9110 to the letter where the default is lenient and another reader might see
    // other messages in the same bytes. A request that declares no body has none (RFC 9112 section
    // 6.3); it is reported as content(is, 0), and so are those of 204 and 304. Heads of 1xx
    // responses are skipped, and a reason phrase may be missing. A header line of a part may be
    // continued by lines that begin with white space. LF alone still ends a line, section 2.2.
    bool strictFraming = false;

    // Of a head, and without partsEndAtBoundary of what stands between parts; the line's end left
    // out, continued lines joined.
    int maxLine = 0;
    int maxHead = 0;      // start line and header lines, 1xx heads included
    int maxHeaders = 0;   // of the message, and of each part
    int maxParts = 0;     // at all levels together
    int maxPartHead = 0;  // header lines of one part
    int maxBody = 0;      // all bodies of a message together, and what stands around its parts

    // Chunk framing: size lines, extensions and trailers. Where either is set, at most
    // maxChunkFraming bytes, and maxChunkFramingRatio bytes more for each byte of data so far.
    int maxChunkFraming = 0;
    int maxChunkFramingRatio = 0;
};

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
        HTTP_ERR_CONTROL_CHARACTER,  // a zero byte or CR within a line
        HTTP_ERR_LENGTH_NOT_DIGITS,
        HTTP_ERR_LENGTH_REPEATED,    // with another value
        HTTP_ERR_LENGTH_AND_CODING,  // by any policy: RFC 9112 section 6.3
        HTTP_ERR_UNKNOWN_CODING,     // not chunked
        HTTP_ERR_CODING_REPEATED,
        HTTP_ERR_CODING_IN_HTTP_1_0,
        HTTP_ERR_CONTENT_TYPE_REPEATED,
        HTTP_ERR_HOST_REPEATED,
        HTTP_ERR_BAD_BOUNDARY,  // above 70 characters, repeated, or in a malformed parameter
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
