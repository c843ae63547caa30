#include "parser/HTTPParser.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"

#include "foundation/AsciiText.h"
#include "foundation/GuardedAllocation.h"
#include "foundation/HTTPException.h"
#include "parser/BoundaryStream.h"
#include "parser/FramedStream.h"
#include "parser/HeadRules.h"
#include "parser/LineSource.h"
#include "parser/MessageReading.h"
#include "parser/ParseError.h"

static char const kSourceFile[] = "HTTPParser";

using namespace postwire::internal;

namespace {

using Policy = HTTPPolicyException;

// The read-ahead of a level in chunks or of parts, by contract.
constexpr int kReadAhead = 4096;

// What may be left of a body is read, so that the next message is found, rather than the connection
// given up: as much as a peer may have under way.
constexpr int kMaxUnread = 64 << 10;

[[noreturn]] void refuse(Policy::PolicyErrorCode code, int line) {
    postwire::internal::refuse(code, QORFileLocation(kSourceFile, line));
}

// Ends the use of a filter stream of our own.
struct DetachAndDelete {
    void operator()(ZULFilterInputStream* stream) const {
        runQuietly([stream] { stream->detach(); });
        dropQuietly(stream);
    }
};

// The body of a chunked level: a decoder over the level's stream and a buffered stream over the
// decoder, which is released first.
class ChunkedBody {
public:
    explicit ChunkedBody(ZULBufferedInputStream& is)
        : m_decoder(guardedNew<ZULChunkedInputStream>(QORFileLocation(kSourceFile, __LINE__), is)
                        .release()),
          m_buffered(guardedNew<ZULBufferedInputStream>(QORFileLocation(kSourceFile, __LINE__),
                                                        *m_decoder, kReadAhead)
                         .release()) {}

    ZULBufferedInputStream& stream() { return *m_buffered; }

    // Reads up to the end of the coding, which stands behind the last byte of data.
    void drain() {
        QORByteBuffer rest(64, 64);
        while (m_buffered->read(rest, 64) > 0) rest.reset();
    }

private:
    std::unique_ptr<ZULChunkedInputStream, DetachAndDelete> m_decoder;
    std::unique_ptr<ZULBufferedInputStream, DetachAndDelete> m_buffered;
};

}  // namespace

HTTPParser::HTTPParser() = default;

HTTPParser::~HTTPParser() { m_pHandler = nullptr; }

void HTTPParser::setMsgHandler(HTTPMsgHandler* handler) { m_pHandler = handler; }

void HTTPParser::setReadPolicy(HTTPReadPolicy const& policy) { m_policy = policy; }

void HTTPParser::setContinueCallback(void (*callback)(void*), void* context) {
    m_continueCallback = callback;
    m_continueContext = context;
}

bool HTTPParser::keepAlive() const {
    return m_wasRead && !m_tookAll && !m_saysClose && (m_minorVersion > 0 || m_saysKeepAlive);
}

void HTTPParser::parseRequest(ZULBufferedInputStream* is) { parse(is, true); }

void HTTPParser::parseResponse(ZULBufferedInputStream* is) { parse(is, false); }

void HTTPParser::parse(ZULBufferedInputStream* is, bool isRequest) {
    QOR_ASSERT(is);
    QOR_ASSERT(m_pHandler);
    m_idepth = 0;
    resetLevel();
    m_boundaries.clear();
    m_saysClose = m_saysKeepAlive = m_expectsContinue = m_tookAll = m_wasRead = false;
    MessageReading r(m_policy);
    r.isRequest = isRequest;
    m_pHandler->reset();
    readStartLine(*is, r);
    readHead(*is, r);
    readBody(*is, r);
    m_pHandler->endMessage();
    m_wasRead = true;
}

void HTTPParser::resetLevel() {
    m_bMultipart[m_idepth] = false;
    m_bChunking[m_idepth] = false;
    m_contentlength[m_idepth] = 0;
    m_bLengthDeclared[m_idepth] = false;
}

// Start lines

// Empty lines in front of one are passed over, RFC 9112 section 2.2. Of a response that is read to
// the letter only the last head is told of, RFC 9110 section 15.2.
void HTTPParser::readStartLine(ZULBufferedInputStream& is, Reading& r) {
    LineSource lines(is, m_line, r.lineRules(false), r.policy.maxLine, r.head,
                     Policy::HTTP_ERR_START_LINE_TOO_LONG);
    char const* const method = r.isRequest ? kParseRequest : kParseResponse;
    for (;;) {
        do {
            if (!lines.readLine()) raise(HTTPException::HTTP_ERR_END_OF_STREAM, method, __LINE__);
        } while (m_line.pcount() == 0);
        if (r.isRequest) return reportRequestLine(r);
        if (r.policy.strictFraming) r.status = judgeStatusLine({m_line.str(), m_line.pcount()});
        if (r.status / 100 != 1) return reportStatusLine(r);
        skipInterimHead(is, r);
    }
}

void HTTPParser::skipInterimHead(ZULBufferedInputStream& is, Reading& r) {
    LineSource lines(is, m_line, LineSource::Rules::Http, r.policy.maxLine, r.head,
                     Policy::HTTP_ERR_HEADER_LINE_TOO_LONG);
    while (lines.readLine()) {
        HeaderLine field;
        if (m_line.pcount() == 0) return;
        cutField(r, field);
    }
    raise(HTTPException::HTTP_ERR_END_OF_STREAM, kProcessHeaders, __LINE__);
}

void HTTPParser::validateRequestLine(QORByteBuffer& line) {
    QOR_ASSERT(m_pHandler);
    keepLine(line);
    reportRequestLine(MessageReading(m_policy));
}

void HTTPParser::validateResponseLine(QORByteBuffer& line) {
    QOR_ASSERT(m_pHandler);
    keepLine(line);
    if (m_policy.strictFraming) judgeStatusLine({m_line.str(), m_line.pcount()});
    reportStatusLine(MessageReading(m_policy));
}

// A caller's line is left alone: ours is cut where it stands.
void HTTPParser::keepLine(QORByteBuffer& line) {
    if (&line == &m_line) return;
    m_line.reset();
    m_line << line.str();
}

void HTTPParser::reportRequestLine(Reading const& r) {
    constexpr auto kMissing = HTTPException::HTTP_ERR_BAD_REQUEST_LINE;
    bool const isStrict = r.policy.strictFraming;
    if (isStrict && !isPrintable({m_line.str(), m_line.pcount()}))
        refuse(Policy::HTTP_ERR_START_LINE, __LINE__);
    Words words(m_line.str());
    std::string_view const method = words.nextWord(), target = words.nextWord(),
                           version = words.nextWord();
    // RFC 9112 section 3 allows a recipient to take more than a single blank between words, and
    // warns of what comes of it.
    std::size_t const blanks = (target.empty() ? 0U : 1U) + (version.empty() ? 0U : 1U);
    if (isStrict && method.size() + target.size() + version.size() + blanks != m_line.pcount())
        refuse(Policy::HTTP_ERR_START_LINE, __LINE__);
    if (method.empty()) raise(kMissing, kValidateRequestLine, __LINE__);
    if (method != "POST")
        raise(HTTPException::HTTP_ERR_METHOD_NOT_POST, kValidateRequestLine, __LINE__);
    if (target.empty()) raise(kMissing, kValidateRequestLine, __LINE__);
    if (isStrict) judgeTarget(target);
    int const minorVersion = minorVersionOf(version);
    bool const hasVersion = !version.empty();
    m_pHandler->setURI(target.data());
    if (!hasVersion) raise(kMissing, kValidateRequestLine, __LINE__);
    if (minorVersion < 0) raise(HTTPException::HTTP_ERR_VERSION, kValidateRequestLine, __LINE__);
    m_minorVersion = minorVersion;
}

void HTTPParser::reportStatusLine(Reading const& r) {
    constexpr auto kMissing = HTTPException::HTTP_ERR_BAD_RESPONSE_LINE;
    if (r.policy.strictFraming) m_line.trim();
    Words words(m_line.str());
    std::string_view const version = words.nextWord();
    if (version.empty()) raise(kMissing, kValidateResponseLine, __LINE__);
    int const minorVersion = minorVersionOf(version);
    if (minorVersion < 0) raise(HTTPException::HTTP_ERR_VERSION, kValidateResponseLine, __LINE__);
    m_minorVersion = minorVersion;
    std::string_view const number = words.nextWord();
    if (number.empty()) raise(kMissing, kValidateResponseLine, __LINE__);
    std::string const reason = words.rest();
    int const status = DecimalNumber(number.data()).value;
    m_pHandler->setStatusCode(static_cast<HTTPMessage::StatusCode>(status));
    // RFC 9112 section 4 allows an empty one.
    if (reason.empty() && !r.policy.strictFraming) raise(kMissing, kValidateResponseLine, __LINE__);
    m_pHandler->setStatusMessage(reason.c_str());
}

// Heads

void HTTPParser::processHeaders(ZULBufferedInputStream* is) {
    QOR_ASSERT(is);
    MessageReading r(m_policy);
    readHead(*is, r);
}

void HTTPParser::readHead(ZULBufferedInputStream& is, Reading& r) {
    bool const isPart = m_idepth > 0;
    bool const isStrict = r.policy.strictFraming;
    r.rules = HeadRules();
    Budget fields(r.policy.maxHeaders, Policy::HTTP_ERR_TOO_MANY_HEADERS);
    LineSource lines(is, m_line, r.lineRules(isPart), r.policy.maxLine,
                     isPart ? r.partHead : r.head, Policy::HTTP_ERR_HEADER_LINE_TOO_LONG);
    for (HeaderLine field;;) {
        if (m_nameAsItCame) lines.peekName(*m_nameAsItCame);
        bool const isGood = isStrict && lines.readGoodField(field);
        if (!isGood && !lines.readLine())
            raise(HTTPException::HTTP_ERR_END_OF_STREAM, kProcessHeaders, __LINE__);
        if (!isGood && m_line.pcount() == 0) break;
        QOR_ASSERT(m_pHandler);
        fields.take(1);
        if (isGood || cutField(r, field)) reportField(r, field);
    }
    if (isStrict) r.rules.judgeHead(!isPart, m_minorVersion, r.isRequest);
}

void HTTPParser::processHeader(QORByteBuffer& osline) {
    QOR_ASSERT(m_pHandler);
    keepLine(osline);
    MessageReading r(m_policy);
    HeaderLine field;
    if (cutField(r, field)) reportField(r, field);
}

// The line is cut in two where it stands. False for one without a colon, which is ignored.
bool HTTPParser::cutField(Reading const& r, HeaderLine& field) {
    char* name = m_line.str();
    char* const end = name + m_line.pcount();
    if (m_nameAsItCame) {
        m_nameAsItCame->assign(name, std::find(name, end, ':'));
        HTTPMessage::trim(*m_nameAsItCame);
    }
    char* colon = name + copyTokenInLowerCase(name, end, name);
    if (r.policy.strictFraming) {
        judgeFieldLine(name, colon, end);
    } else if (*colon != ':') {
        colon = std::strchr(colon, ':');
        if (!colon) return false;
        std::string trimmed(name, colon);
        HTTPMessage::trim(trimmed);
        name = colon - trimmed.size();  // so that one zero byte parts it from the text
        trimmed.copy(name, trimmed.size());
        toLowerCase(name, colon);
    }
    *colon = '\0';
    field = {name, static_cast<std::size_t>(colon - name), std::strlen(colon + 1)};
    return true;
}

// Names are told apart by their length first: few have that of one that matters here.
static bool mayBeRecorded(std::size_t nameSize) {
    constexpr unsigned kSizes = 1U << (sizeof "content-type" - 1) |
                                1U << (sizeof "content-length" - 1) |
                                1U << (sizeof "transfer-encoding" - 1) | 1U << (sizeof "host" - 1) |
                                1U << (sizeof "expect" - 1) | 1U << (sizeof "connection" - 1);
    return nameSize < 32 && (kSizes >> nameSize & 1) != 0;
}

void HTTPParser::reportField(Reading& r, HeaderLine const& field) {
    m_header.borrow(field);
    if (mayBeRecorded(field.nameSize)) {
        recordField(r, field.name(), field.text());
        m_header.borrow(field);  // again, where it was taken apart
    }
    m_pHandler->header(field.bytes, &m_header);
}

void HTTPParser::recordField(Reading& r, std::string_view name, std::string_view text) {
    if (name == "content-type")
        recordContentType(r, text);
    else if (name == "content-length")
        recordContentLength(r, text.data());
    else if (name == "transfer-encoding")
        recordTransferEncoding(r, text.data());
    else if (m_idepth == 0 && (name == "connection" || name == "expect"))
        recordConnection(name, text);
    else if (m_idepth == 0 && name == "host" && r.policy.strictFraming)
        r.rules.judgeHost(text);
}

// What a message says of its connection.
void HTTPParser::recordConnection(std::string_view name, std::string_view text) {
    bool const isExpect = name == "expect";
    forEachItem(text, [=](std::string_view item) {
        m_saysClose |= !isExpect && equalsInAnyCase(item, "close");
        m_saysKeepAlive |= !isExpect && equalsInAnyCase(item, "keep-alive");
        m_expectsContinue |= isExpect && equalsInAnyCase(item, "100-continue");
    });
}

// Where the header's value begins, whose text this is: only a value in quotes, or one that is
// empty, has to be taken apart to tell.
char const* HTTPParser::startOfValue(char const* text) {
    while (isAsciiSpace(*text)) ++text;
    bool const isPlain = *text != '"' && *text != ';' && *text != '\0';
    return isPlain ? text : m_header.getValue();
}

void HTTPParser::recordContentType(Reading& r, std::string_view text) {
    bool const isStrict = r.policy.strictFraming;
    if (isStrict) r.rules.judgeContentType();
    char const* const type = startOfValue(text.data());
    if (!*type) raise(HTTPException::HTTP_ERR_BAD_CONTENT_TYPE, kProcessHeader, __LINE__);
    constexpr std::string_view kMultipart = "multipart/";
    if (!beginsInAnyCase({type, strnlen(type, kMultipart.size())}, kMultipart)) return;
    std::string_view boundary;
    if (isStrict)
        boundary = HeadRules::readBoundary(text);
    else if (char const* const value = m_header.getAttribute("boundary"))
        boundary = value;
    if (boundary.empty()) raise(HTTPException::HTTP_ERR_NO_BOUNDARY, kProcessHeader, __LINE__);
    // One boundary a level: a second would be taken for that of the level around it.
    if (m_bMultipart[m_idepth] && !m_boundaries.empty())
        m_boundaries.back() = boundary;
    else
        m_boundaries.emplace_back(boundary);
    m_bMultipart[m_idepth] = true;
}

void HTTPParser::recordContentLength(Reading& r, char const* text) {
    char const* const value = startOfValue(text);
    if (!*value) raise(HTTPException::HTTP_ERR_BAD_CONTENT_LENGTH, kProcessHeader, __LINE__);
    if (r.policy.strictFraming) {
        m_contentlength[m_idepth] = r.rules.readContentLength(text);
        m_bLengthDeclared[m_idepth] = true;
    } else {
        DecimalNumber const length(value);
        m_contentlength[m_idepth] = length.value;
        m_bLengthDeclared[m_idepth] = length.hasDigits;
    }
}

void HTTPParser::recordTransferEncoding(Reading& r, char const* text) {
    if (!*startOfValue(text))
        raise(HTTPException::HTTP_ERR_BAD_TRANSFER_ENCODING, kProcessHeader, __LINE__);
    if (r.policy.strictFraming) r.rules.judgeTransferEncoding(text);
    m_bChunking[m_idepth] =
        r.policy.strictFraming || equalsInAnyCase(m_header.getValue(), "chunked");
}

// Bodies

void HTTPParser::processEntities(ZULBufferedInputStream* is) {
    QOR_ASSERT(is);
    QOR_ASSERT(m_pHandler);
    MessageReading r(m_policy);
    if (m_idepth > 0) setDelimiterAround(r, m_bMultipart[m_idepth] ? 1 : 0);
    readBody(*is, r);
}

// RFC 9112 section 6.3, in its order. A length of 0 yields to chunked coding, any other may not
// stand beside it: two servers in a row could each believe another one of the two.
HTTPParser::Framing HTTPParser::framing(Reading const& r) const {
    bool const isDeclared = m_bLengthDeclared[m_idepth];
    bool const isMultipart = m_bMultipart[m_idepth];
    int const length = m_contentlength[m_idepth];
    if (r.policy.strictFraming && m_idepth == 0) {
        bool const hasNone =
            r.isRequest ? !m_bChunking[0] && !isDeclared : r.status == 204 || r.status == 304;
        if (hasNone) return Framing::None;
    }
    if (m_bChunking[m_idepth]) {
        if (length != 0 && !r.byDefault) refuse(Policy::HTTP_ERR_LENGTH_AND_CODING, __LINE__);
        if (!isMultipart && length != 0) QOR_ASSERT(!m_bChunking[m_idepth]);
        QOR_ASSERT(m_contentlength[m_idepth] == 0);
        return Framing::Chunks;
    }
    // Unless its level is bound, the length of a multipart body is not used.
    if (isDeclared && (!isMultipart || r.policy.boundMessage)) {
        if (length < 0 && !r.byDefault) refuse(Policy::HTTP_ERR_LENGTH_NOT_DIGITS, __LINE__);
        r.body.require(length);
        return Framing::Length;
    }
    return r.delimiter ? Framing::Boundary : Framing::Rest;
}

void HTTPParser::readBody(ZULBufferedInputStream& is, Reading& r) {
    Framing const framing = this->framing(r);
    if (m_contentlength[m_idepth] > 0 || m_bChunking[m_idepth]) askForBody(is, r);
    if (framing == Framing::Length && !m_bMultipart[m_idepth]) return readLength(is, r);
    try {
        switch (framing) {
            case Framing::None: {
                LengthStream body(is, 0, Policy::HTTP_ERR_BODY_CUT, r.body);
                return m_pHandler->content(body, 0);
            }
            case Framing::Length:
                return readLength(is, r);
            case Framing::Chunks:
                return readChunks(is, r);
            case Framing::Boundary: {
                BoundaryStream body(is, *r.delimiter, true, budget(r));
                return deliver(body, r);
            }
            case Framing::Rest:
                return readRest(is, r);
        }
    } catch (HTTPException& e) {
        e.addBackTrace(QORFileLocation(kSourceFile, __LINE__), kProcessEntities, "QOR_RETHROW");
        throw;
    }
}

// The head has been read and the body is wanted.
void HTTPParser::askForBody(ZULBufferedInputStream const& is, Reading const& r) {
    bool const waits = r.isRequest && m_expectsContinue && m_minorVersion > 0;
    if (waits && m_idepth == 0 && m_continueCallback && is.buffered() == 0)
        m_continueCallback(m_continueContext);
}

// The delimiter around a part is looked for within its length, too, since a reader that goes by
// delimiters would end the part there: the two must agree.
void HTTPParser::readLength(ZULBufferedInputStream& is, Reading& r) {
    int const length = m_contentlength[m_idepth];
    if (r.byDefault) return m_pHandler->content(is, length);
    // Within a body that ends by itself only that end can be met: the input's is told there.
    auto cut = r.isBounded ? Policy::HTTP_ERR_BODY_OVERRUN : Policy::HTTP_ERR_BODY_CUT;
    if (r.delimiter) cut = Policy::HTTP_ERR_NO_DELIMITER;
    std::optional<BoundaryStream> part;
    if (r.delimiter && r.delimiter->mayBeWithin(is, length))
        part.emplace(is, *r.delimiter, true, r.uncounted);
    LengthStream body(part ? static_cast<ZULInputStream&>(*part) : is, length, cut, budget(r));
    deliver(body, r, length);
    if (r.delimiter) requireDelimiter(is, r, length == 0);
}

void HTTPParser::readChunks(ZULBufferedInputStream& is, Reading& r) {
    if (r.byDefault) {
        ChunkedBody body(is);
        readOpenBody(body.stream(), r);
        return body.drain();
    }
    ZULChunkedInputStream decoder(is);
    if (r.policy.strictFraming) decoder.setStrict();
    if (r.policy.maxChunkFraming > 0 || r.policy.maxChunkFramingRatio > 0)
        decoder.setMaxFraming(r.policy.maxChunkFraming, r.policy.maxChunkFramingRatio);
    FramedStream body(decoder, budget(r));
    deliver(body, r);
    if (r.delimiter) requireDelimiter(is, r, true);
}

// To the end of the stream, or to the closing delimiter.
void HTTPParser::readRest(ZULBufferedInputStream& is, Reading& r) {
    bool const isMultipart = m_bMultipart[m_idepth];
    bool const endsByItself = isMultipart && (r.isRequest || m_bLengthDeclared[m_idepth]);
    if (m_idepth == 0) m_tookAll = !endsByItself;
    if (isMultipart || r.byDefault) return readOpenBody(is, r);
    FramedStream body(is, r.body);
    m_pHandler->content(body);
}

// A body whose end the stream or the closing delimiter tells.
void HTTPParser::readOpenBody(ZULBufferedInputStream& is, Reading& r) {
    if (m_bMultipart[m_idepth])
        readParts(is, r);
    else
        m_pHandler->content(is);
}

// What is read of a multipart level is counted where its parts are read.
Budget& HTTPParser::budget(Reading& r) const {
    return m_bMultipart[m_idepth] ? r.uncounted : r.body;
}

// To the handler, which is told the length where there is one, or part by part. What it leaves is
// dropped, but for that of a length in a message that is not bound: that is read as what follows.
void HTTPParser::deliver(FramedStream& body, Reading& r, int length) {
    Budget unread(r.policy.boundMessage ? kMaxUnread : 0, Policy::HTTP_ERR_BODY_LEFT);
    if (m_bMultipart[m_idepth]) {
        // Room for no more than a small level has: malloc gives that back at once.
        ZULBufferedInputStream buffered(body,
                                        length > 0 ? std::min(length, kReadAhead) : kReadAhead);
        bool const wasBounded = std::exchange(r.isBounded, true);
        readParts(buffered, r);
        r.isBounded = wasBounded;
        return drain(buffered, unread, r.body);
    }
    if (length >= 0)
        m_pHandler->content(body, length);
    else
        m_pHandler->content(body);
    if (length < 0 || r.policy.boundMessage) drain(body, unread, r.uncounted);
}

// Parts

void HTTPParser::processPart(ZULBufferedInputStream* is) {
    QOR_ASSERT(m_pHandler);
    MessageReading r(m_policy);
    setDelimiterAround(r, 0);
    readPart(is, r);
}

// For a part that is read on its own: of the boundary that so many others stand on.
void HTTPParser::setDelimiterAround(Reading& r, std::size_t inner) const {
    if (!r.policy.partsEndAtBoundary || m_boundaries.size() <= inner) return;
    r.delimiter = &r.around.emplace(m_boundaries[m_boundaries.size() - inner - 1]);
}

void HTTPParser::readParts(ZULBufferedInputStream& is, Reading& r) {
    QOR_ASSERT(!m_boundaries.empty());
    m_pHandler->startMultiParts(m_boundaries.back().c_str());
    Delimiter delimiter(m_boundaries.back());
    Delimiter* const around = r.delimiter;
    if (r.policy.partsEndAtBoundary) r.delimiter = &delimiter;
    while (!takeDelimiter(is, r, delimiter)) readPart(&is, r);
    r.delimiter = around;
    m_pHandler->endMultiParts(m_boundaries.back().c_str());
    m_boundaries.pop_back();
}

// Passes over what stands before the next delimiter, and takes it; whether it is the closing one.
bool HTTPParser::takeDelimiter(ZULBufferedInputStream& is, Reading& r, Delimiter& delimiter) {
    if (!r.policy.partsEndAtBoundary) return takeDelimiterLine(is, r, delimiter);
    if (!delimiter.isNext(is, true)) {
        BoundaryStream skipped(is, delimiter, true, r.body);
        drain(skipped, r.uncounted, r.uncounted);
    }
    return delimiter.take(is);
}

// RFC 2046 section 5.1.1, but for white space around a boundary line and for the line end before
// it, which is taken for an empty line: where a part ends is for its own framing to say.
bool HTTPParser::takeDelimiterLine(ZULBufferedInputStream& is, Reading& r,
                                   Delimiter const& delimiter) {
    auto const rules = r.byDefault ? LineSource::Rules::Default : LineSource::Rules::Limits;
    LineSource lines(is, m_line, rules, r.policy.maxLine, r.body,
                     Policy::HTTP_ERR_HEADER_LINE_TOO_LONG);
    for (;;) {
        if (!lines.readLine())
            raise(HTTPException::HTTP_ERR_MISSING_BOUNDARY, kProcessEntities, __LINE__);
        std::string_view const line(m_line.str(), m_line.pcount());
        if (line == delimiter.separator()) return false;
        if (line == delimiter.closing()) return true;
    }
}

void HTTPParser::requireDelimiter(ZULBufferedInputStream& is, Reading& r, bool atLineStart) {
    Delimiter& delimiter = *r.delimiter;
    if (!delimiter.isNext(is, atLineStart) &&
        !BoundaryStream(is, delimiter, atLineStart, r.uncounted).atDelimiter())
        refuse(Policy::HTTP_ERR_NO_DELIMITER, __LINE__);
}

void HTTPParser::readPart(ZULBufferedInputStream* is, Reading& r) {
    if (!r.byDefault && m_idepth + 1 == HTTP_MAX_DEPTH) refuse(Policy::HTTP_ERR_NESTING, __LINE__);
    QOR_ASSERT(m_idepth + 1 < HTTP_MAX_DEPTH);
    r.parts.take(1);
    ++m_idepth;
    resetLevel();
    r.partHead = Budget(r.policy.maxPartHead, Policy::HTTP_ERR_PART_HEAD_TOO_LARGE);
    m_pHandler->startPart();
    QOR_ASSERT(is);
    readHead(*is, r);
    readBody(*is, r);
    --m_idepth;
    m_pHandler->endPart();
}
