#pragma once

#include "foundation/Export.h"

#include "message/HTTPMessage.h"

class ZULInputStream;

// Receives what HTTPParser reads, while it reads it.
//
// For one message the events come in this order: reset; setURI, or setStatusCode and
// setStatusMessage; header for each header line; one content, or startMultiParts, then for each
// part startPart, the part's header and body events and endPart, then endMultiParts; endMessage.
// A part whose body is multipart has a sequence of its own between its startPart and endPart.
//
// Ownership: the parser borrows the handler. Texts and the HTTPHeader given to an event are the
//   parser's and end with that event; a handler that keeps them copies them.
// Units: lengths are bytes.
// Raises: what a handler raises ends the parse and reaches the caller of parseRequest or
//   parseResponse.
// Rule: when a parse fails the events simply stop, whatever is open; the next one is reset.
class POSTWIRE_EXPORT HTTPMsgHandler {
public:
    virtual ~HTTPMsgHandler();

    // A message begins; nothing of it has been read yet.
    virtual void reset() = 0;

    // The request target as received, before the version behind it is checked.
    virtual void setURI(char const* uri) = 0;

    // The status line's number: any int, not only three digits.
    virtual void setStatusCode(HTTPMessage::StatusCode code) = 0;

    // The status line from its third word on, inner white space kept; never empty.
    virtual void setStatusMessage(char const* text) = 0;

    // One header line of the message or of the part that was started last, the framing headers
    // among them. The name is in lower case; it may be empty.
    virtual void header(char const* name, HTTPHeader* value) = 0;

    // A body of a declared length, 0 included. The handler reads exactly that many bytes: what it
    // leaves is read as what follows the body. The length is not checked and may be negative.
    virtual void content(ZULInputStream& is, int length) = 0;

    // A body that ends where `is` ends. What the handler leaves of a chunked body is dropped.
    virtual void content(ZULInputStream& is) = 0;

    // The multipart events, for handlers that tell parts apart; they do nothing here. The boundary
    // is given without the leading "--".
    virtual void startMultiParts(char const* boundary);
    virtual void startPart();
    virtual void endPart();
    virtual void endMultiParts(char const* boundary);

    // The message has been read completely.
    virtual void endMessage() = 0;
};
