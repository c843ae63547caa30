#pragma once

#include <string>

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULOutputStream.h"

#include "message/HTTPMessage.h"

class HttpOutputStream;

// Writes one HTTP message, or one part of a multipart message, onto an output stream as it is
// produced: the start line at once, the staged header block just before the body, then the body.
// The chunk size given at construction says how the body is framed:
//
//   0    the whole body is held until the message is finished, then sent behind Content-Length;
//   > 0  chunked, RFC 9112 section 7.1, in chunks of at most that many bytes;
//   -1   for a part under a chunked multipart message alone: each block written becomes one chunk
//        of the parent's body, straight from the caller's memory.
//
// Order of calls: construct; startRequest or startResponse (a whole message only); setHeader; the
// body (see the subclasses); finish; then start the next message on the same stream.
//
// Ownership: the stream is borrowed and must outlive the node. Texts and body bytes are not kept
//   beyond the call, except that a body with a length is copied.
// Raises: QORAssertError for a missing text; SoapSocketException when the machine's name, the
//   default "Host", can't be read; what the stream raises passes through. Nothing is rolled back
//   or tried again: once a write of a body in chunks has raised, of a part's too, nothing more of
//   it is sent and every call raises ZULStreamException, so that a reader finds it cut short; the
//   next start, or reset(), begins anew, and no byte of the message given up reaches the next. With
//   chunk size 0 a second finish() after one that raised sends header block and body again: don't.
// Rule: the stream is neither flushed nor closed; whoever owns it does both. One node, its parts
//   included, is used by one thread at a time. URIs, reason texts and header values go out as
//   given: whoever takes them from outside keeps CR and LF away.
class POSTWIRE_EXPORT HttpMsgNode {
public:
    // Fails "QOR_ASSERT(chunkedStream);" for a negative chunk size unless `os` is the body of a
    // chunked message.
    HttpMsgNode(ZULOutputStream& os, int chunksize);
    HttpMsgNode(HttpMsgNode const&) = delete;
    HttpMsgNode& operator=(HttpMsgNode const&) = delete;

    // Writes nothing: a message that was not finished stays cut short on the wire.
    virtual ~HttpMsgNode();

    // Ends the body; does nothing at this level.
    virtual void finish();

    // Drops the staged headers, the defaults too, and what the body stream holds.
    virtual void reset();

    // Stages "Host", this machine's name for want of the server's, which a caller who knows it sets
    // in its place, and "Transfer-Encoding: chunked" for a chunked node.
    virtual void setRequestHeaders();

    // Stages "Transfer-Encoding: chunked" for a chunked node, else nothing.
    virtual void setResponseHeaders();

    // Resets the node, writes "POST uri HTTP/1.1" (1.0 where http10 is not 0) and stages the
    // default headers of a request. Headers set before are lost. A chunked node sends chunks under
    // HTTP/1.0 too, which knows none: give such a peer chunk size 0.
    void startRequest(char const* uri, int http10);

    // The same for a response: "HTTP/1.1 code msg". An empty reason text is valid.
    void startResponse(int code, char const* msg);

    // Stages a header in place of one of the same name in any letter case; "set-cookie" is added
    // each time. A text is taken apart as HTTPHeader::parse does. Headers go out sorted by name;
    // one that is set after the block has gone out is not written.
    void setHeader(char const* name, char const* value);
    void setHeader(char const* name, int value);

    // The same, but the text goes out as it is, with its quotes, order and all that setHeader would
    // leave out. Fails an assertion for a name that is no token, RFC 9110 section 5.6.2, and for a
    // text that holds CR, LF or a zero byte.
    void setHeaderText(char const* name, char const* text, int length);

    // Writes the staged headers and the empty line behind them in one write. For the body streams,
    // which know the moment.
    void writeHeaders();

    // Writes bytes as they are. For the body streams.
    void write_upstream(char const* data, int length);

protected:
    friend class HttpChunkedOutputStream;
    friend class HttpDirectOutputStream;

    HTTPHeaders headers;
    ZULOutputStream* p_os_upstream;  // borrowed; for a part, the parent's body stream
    HttpOutputStream* p_os_content;  // owned
    int chunked;                     // 1 when the chunk size is above 0

    // Kept, so that a node used again takes no memory for them. A delimiter line is still being
    // written when it calls for the header block, so line and block stand apart.
    QORByteBuffer m_line;
    QORByteBuffer m_block;
    QORByteBuffer m_number;
};

// A message, or a part, with one body.
class POSTWIRE_EXPORT OnePieceHttpMsg : public HttpMsgNode {
public:
    // Stages the default headers of a request, which a part keeps unless it is reset.
    OnePieceHttpMsg(ZULOutputStream& os, int chunksize);
    ~OnePieceHttpMsg() override;

    // Ends the body. One that stayed empty is written as such, with "Content-Length: 0" or as a
    // chunked body without chunks; a direct part without bytes leaves nothing, no header either.
    // Called again it writes nothing.
    void finish() override;
    void reset() override;

    // Appends to the body. A direct part fails "QOR_ASSERT(length > 0);" for 0 bytes.
    virtual void write(char const* data, int length);
};

// A message, or a part, with a multipart/related body, RFC 2387: parts one after the other, each a
// node that writes its header block and body into this node's body.
//
// Ownership: owns its open part, one at a time: a part's pointer is good until it is given to
//   endPart, or until this node is reset, started or destroyed.
// Raises: QORAssertError when a part is added while one is open, and when a part is ended that is
//   not the open one; QOROutOfMemoryError when a part can't be made. Where a part can't be made
//   after its delimiter line was written, the message can only be given up.
// Rule: the boundary is the caller's choice and is not checked: 1 to 70 characters, RFC 2046
//   section 5.1.1, that no line of any part begins with behind "--". Content-Type carries it
//   without quotes, so it should be made of letters, digits and "'+_.-".
class POSTWIRE_EXPORT MultipartHttpMsg : public HttpMsgNode {
public:
    // Copies the boundary; null fails "QOR_ASSERT(boundary);". Stages the default headers of a
    // request, as for OnePieceHttpMsg.
    MultipartHttpMsg(ZULOutputStream& os, int chunksize, char const* boundary);
    ~MultipartHttpMsg() override;

    // Writes the closing delimiter and ends the body. A part still open is not ended: the
    // delimiter follows the bytes that the part has sent so far.
    void finish() override;

    // Drops the open part too, unfinished.
    void reset() override;

    // Those of the node and the multipart Content-Type, for a request with "type=text/xml".
    void setRequestHeaders() override;
    void setResponseHeaders() override;

    // Writes a delimiter line and opens a part. Its chunk size says how its own body is framed
    // within this one; -1 needs this node to be chunked.
    OnePieceHttpMsg* addOnePiece(int chunksize);

    // The same for a part that has parts of its own, between delimiters of its own boundary.
    MultipartHttpMsg* addMultiPart(int chunksize, char const* part_boundary);

    // Finishes and deletes the open part. A part whose finish raises stays open.
    void endPart(OnePieceHttpMsg* part);
    void endPart(MultipartHttpMsg* part);

    // Writes a delimiter line, or the closing delimiter where `last` is not 0, into the body.
    void writePartBoundary(int last);

protected:
    std::string boundary;
    HttpMsgNode* p_current_part;  // owned, or null

private:
    void stageContentType(char const* type);
    void endOpenPart(HttpMsgNode* part);
};
