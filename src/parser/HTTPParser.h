#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMsgHandler.h"
#include "parser/HTTPReadPolicy.h"

class HTTPMessageReader;
class ZULBufferedInputStream;

namespace postwire::internal {
class Budget;
class Delimiter;
class FramedStream;
struct MessageReading;
struct NameAsItCame;
}  // namespace postwire::internal

// Reads one HTTP/1.0 or HTTP/1.1 message and reports it to a handler while it reads.
//
// Ownership: the handler is borrowed and must outlive the parser's last call; the stream is
//   borrowed for one call. Texts and the HTTPHeader given to an event end with that event.
// Units: lengths are bytes; level 0 is the message, 1 its parts, 2 the parts of a part.
// Raises: HTTPException 1000 to 1010 for bad input; QORAssertError for a missing handler or
//   stream, for a body with both a length and chunks, and for parts nested deeper than level 2;
//   what the stream or the handler raises passes through. A policy that changes the reading makes
//   HTTPPolicyException, an HTTPException, of all that input can fail: no assertion is left that a
//   peer could meet. After any of these the next parse starts clean.
// Rule: body framing follows RFC 9112 section 6.3, with chunked as the only transfer coding. The
//   one method is POST. Lines are not folded together and have no limit of their own.
//   HTTPReadPolicy says what a policy changes in this.
class POSTWIRE_EXPORT HTTPParser {
public:
    // The message, its parts, and the parts of a part.
    static constexpr int HTTP_MAX_DEPTH = 3;

    HTTPParser();
    HTTPParser(HTTPParser const&) = delete;
    HTTPParser& operator=(HTTPParser const&) = delete;
    virtual ~HTTPParser();

    // The receiver of all further events.
    void setMsgHandler(HTTPMsgHandler* handler);

    // How messages are read from the next one on, instead of the default: one that is being read
    // goes on as it began. A step of a parse that is called on its own is read by it as well, with
    // limits of its own.
    void setReadPolicy(HTTPReadPolicy const& policy);

    // What to run, with what, before the first body byte of an HTTP/1.1 request that expects
    // 100-continue (RFC 9110 section 10.1.1): not for one without a body, nor when bytes of the
    // body are in the read-ahead already. Null for nothing, as at first.
    void setContinueCallback(void (*callback)(void*), void* context);

    // The version of the message read last, HTTP/1.0 or HTTP/1.1; 1 before the first.
    int getMinorVersion() const { return m_minorVersion; }

    // Whether another message may follow that one on its connection: RFC 9112 section 9.3, by its
    // version and Connection. False after a failed parse and behind a body that took all to the
    // end.
    bool keepAlive() const;

    // Reads one message, from the first line that is not empty to the end of its body. Bytes
    // behind it stay in `is`, for the next call.
    void parseRequest(ZULBufferedInputStream* is);
    void parseResponse(ZULBufferedInputStream* is);

    // The steps of a parse, for callers that read a header block or a body on its own. A line is
    // given without white space at its ends and read up to its first zero byte.

    // Header lines of the current level up to and with the empty line.
    void processHeaders(ZULBufferedInputStream* is);

    // "POST", target, version; words behind them are ignored.
    void validateRequestLine(QORByteBuffer& line);

    // Version, number, reason phrase: RFC 9112 section 4 allows an empty phrase, this does not.
    void validateResponseLine(QORByteBuffer& line);

    // One header line; a line without a colon is ignored. Content-Type, Content-Length and
    // Transfer-Encoding set the framing of the current level, the last of each kind counts.
    void processHeader(QORByteBuffer& osline);

    // The body of the current level, framed as its header lines said. A level with neither length
    // nor chunked coding runs to the end of the stream.
    void processEntities(ZULBufferedInputStream* is);

    // One part behind its opening boundary line: header lines and body, one level deeper. The
    // boundary is not looked for in the body: a part needs a length or chunked coding.
    void processPart(ZULBufferedInputStream* is);

private:
    friend struct postwire::internal::NameAsItCame;
    using Reading = postwire::internal::MessageReading;
    enum class Framing { None, Length, Chunks, Boundary, Rest };

    void parse(ZULBufferedInputStream* is, bool isRequest);
    void resetLevel();

    void readStartLine(ZULBufferedInputStream& is, Reading& r);
    void skipInterimHead(ZULBufferedInputStream& is, Reading& r);
    void keepLine(QORByteBuffer& line);
    void reportRequestLine(Reading const& r);
    void reportStatusLine(Reading const& r);

    void readHead(ZULBufferedInputStream& is, Reading& r);
    bool cutField(Reading const& r, postwire::internal::HeaderLine& field);
    void reportField(Reading& r, postwire::internal::HeaderLine const& field);
    void recordField(Reading& r, std::string_view name, std::string_view text);
    void recordConnection(std::string_view name, std::string_view text);
    char const* startOfValue(char const* text);
    void recordContentType(Reading& r, std::string_view text);
    void recordContentLength(Reading& r, char const* text);
    void recordTransferEncoding(Reading& r, char const* text);

    Framing framing(Reading const& r) const;
    void readBody(ZULBufferedInputStream& is, Reading& r);
    void askForBody(ZULBufferedInputStream const& is, Reading const& r);
    void readLength(ZULBufferedInputStream& is, Reading& r);
    void readChunks(ZULBufferedInputStream& is, Reading& r);
    void readRest(ZULBufferedInputStream& is, Reading& r);
    void readOpenBody(ZULBufferedInputStream& is, Reading& r);
    postwire::internal::Budget& budget(Reading& r) const;
    void deliver(postwire::internal::FramedStream& body, Reading& r, int length = -1);

    void setDelimiterAround(Reading& r, std::size_t inner) const;
    void readParts(ZULBufferedInputStream& is, Reading& r);
    bool takeDelimiter(ZULBufferedInputStream& is, Reading& r,
                       postwire::internal::Delimiter& delimiter);
    bool takeDelimiterLine(ZULBufferedInputStream& is, Reading& r,
                           postwire::internal::Delimiter const& delimiter);
    void requireDelimiter(ZULBufferedInputStream& is, Reading& r, bool atLineStart);
    void readPart(ZULBufferedInputStream* is, Reading& r);

    std::vector<std::string> m_boundaries;  // of the open multipart levels, the innermost last
    HTTPMsgHandler* m_pHandler = nullptr;
    bool m_bChunking[HTTP_MAX_DEPTH] = {};
    bool m_bMultipart[HTTP_MAX_DEPTH] = {};       // the level has a boundary on the stack
    int m_idepth = 0;                             // the current level
    int m_contentlength[HTTP_MAX_DEPTH] = {};     // 0 for none, too
    bool m_bLengthDeclared[HTTP_MAX_DEPTH] = {};  // tells a declared 0 from none
    // Kept, so that a line costs no memory of its own: the line being looked at, of any level, and
    // the value of a header line.
    QORByteBuffer m_line{256, 256};
    HTTPHeader m_header;
    HTTPReadPolicy m_policy;  // of the next message
    void (*m_continueCallback)(void*) = nullptr;
    void* m_continueContext = nullptr;
    // Of the message being read, or read last.
    int m_minorVersion = 1;
    bool m_saysClose = false;
    bool m_saysKeepAlive = false;
    bool m_expectsContinue = false;
    bool m_tookAll = false;                 // its body ended with the stream
    bool m_wasRead = false;                 // all of it
    std::string* m_nameAsItCame = nullptr;  // where names are left in their own letter case
};

// Builds an HTTPMessage tree from the parser's events: the message's headers, its body bytes, and
// one child for each part. Header lines of one name replace each other, set-cookie lines add up.
//
// Ownership: the root message is the caller's, and must live until the next setMessage or the last
//   event. A part is the builder's until it passes to its parent: when its own parts begin, or
//   when it ends. One that was abandoned by a failed parse is deleted by the next setMessage or
//   reset, or by the destructor.
// Raises: QORAssertError for events out of order, QOROutOfMemoryError for parts and buffers, and
//   what the body's stream raises; the bytes that came before it stay in the message.
// Rule: setMessage, or the reset that begins a parse, makes the builder usable after any failure.
class POSTWIRE_EXPORT HTTPMOMMsgHandler : public HTTPMsgHandler {
public:
    HTTPMOMMsgHandler();
    HTTPMOMMsgHandler(HTTPMOMMsgHandler const&) = delete;
    HTTPMOMMsgHandler& operator=(HTTPMOMMsgHandler const&) = delete;
    ~HTTPMOMMsgHandler() override;

    // The message to fill, or null for none; the one before is not touched.
    void setMessage(HTTPMessage* msg);

    // Empties the root message. URI, status code and status message stay: a message brings its
    // own.
    void reset() override;
    void setURI(char const* uri) override;
    void setStatusCode(HTTPMessage::StatusCode code) override;
    void setStatusMessage(char const* text) override;
    void header(char const* name, HTTPHeader* value) override;

    // Body bytes are read straight into the message, behind those already there.
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;
    void endPart() override;
    void endMultiParts(char const* boundary) override;
    void endMessage() override;

private:
    friend class HTTPMessageReader;

    // The current message's content buffer, made at the first call with that much room.
    QORByteBuffer& contentBuffer(int room);

    HTTPMessage* m_pCurrentMessage = nullptr;  // the root, or a part that is still ours
    HTTPMessage* m_pRootMessage = nullptr;
    std::vector<HTTPMessage*> m_parentStack;  // open multipart messages, the outermost first
    HTTPMessage::StatusCode m_statusCode{};   // 0 before the first status line
    std::string m_statusMessage;
    std::string m_uri;
};
