#pragma once

#include <string>

#include "foundation/Export.h"
#include "foundation/ZULBufferedInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPParser.h"
#include "parser/HTTPReadPolicy.h"

// Reads HTTP messages from a connection, one call each, into message trees.
//
// Ownership: the reader copies the stream given, read-ahead and position included, and borrows the
//   stream beneath it. Messages are the caller's.
// Raises: what HTTPParser and the stream raise, unchanged; QORAssertError for a null result
//   pointer, before anything is read. The results are then not written, and the message holds what
//   had been read by then.
// Rule: one reader per connection. Bytes read beyond a message stay in the reader for its next
//   call, so nothing else may read the connection from then on. A call after a failed one starts
//   clean, at the byte where that one stopped.
class POSTWIRE_EXPORT HTTPMessageReader {
public:
    explicit HTTPMessageReader(ZULBufferedInputStream& is);
    HTTPMessageReader(HTTPMessageReader const&) = delete;
    HTTPMessageReader& operator=(HTTPMessageReader const&) = delete;
    ~HTTPMessageReader();

    // Empties msg, which must not be null, then fills it.
    void getRequest(HTTPMessage* msg, std::string* uri);
    void getResponse(HTTPMessage* msg, HTTPMessage::StatusCode* status,
                     std::string* status_message);

    // How messages are read from the next one on, instead of the default: one that is being read
    // goes on as it began.
    void setReadPolicy(HTTPReadPolicy const& policy);

    // As HTTPParser has them: of the message read last, and for those to come.
    int getMinorVersion() const;
    bool keepAlive() const;
    void setContinueCallback(void (*callback)(void*), void* context);

private:
    HTTPParser m_parser;
    HTTPMOMMsgHandler m_handler;
    ZULBufferedInputStream m_stream;
};
