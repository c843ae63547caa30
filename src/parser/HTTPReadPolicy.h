#pragma once

#include "foundation/Export.h"

#include "parser/HTTPPolicyException.h"

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

    // A part without chunks ends before the CRLF that precedes the next delimiter, RFC 2046 section
    // 5.1.1, and a declared length must agree; a part in chunks must be followed by a delimiter. A
    // delimiter is a line of its own between CRLFs, but for white space behind it; the last one may
    // end with its level.
    bool partsEndAtBoundary = false;

    // RFC 9112 and 9110 to the letter where the default is lenient and another reader might see
    // other messages in the same bytes. A request that declares no body has none (RFC 9112 section
    // 6.3); it is reported as content(is, 0), and so are those of 204 and 304. Heads of 1xx
    // responses are skipped, and a reason phrase may be missing. An HTTP/1.1 request has one Host.
    // A header line of a part may be continued by lines that begin with white space; LF alone ends
    // a line there, and nowhere else.
    bool strictFraming = false;

    // The longest line of a head, without its end and with the lines that continue it. Without
    // partsEndAtBoundary the lines between parts are limited, too.
    int maxLine = 0;
    int maxHead = 0;      // start line and header lines, 1xx heads included
    int maxHeaders = 0;   // of the message, and of each part
    int maxParts = 0;     // at all levels together
    int maxPartHead = 0;  // header lines of one part
    int maxBody = 0;      // of the body: all parts together, and what stands around them

    // Chunk framing: size lines, extensions and trailers. Where either is set, at most
    // maxChunkFraming bytes, and maxChunkFramingRatio bytes more for each byte of data so far.
    int maxChunkFraming = 0;
    int maxChunkFramingRatio = 0;
};
