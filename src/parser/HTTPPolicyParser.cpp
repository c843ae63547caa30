#include "parser/HTTPPolicyParser.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <utility>

#include "foundation/QORThrowable.h"
#include "foundation/ZULChunkedInputStream.h"

#include "foundation/AsciiText.h"
#include "parser/FramedStream.h"
#include "parser/HTTPParseError.h"

static char const kSourceFile[] = "HTTPParser";

namespace {

using Policy = HTTPPolicyException;
using parseError::raise;

[[noreturn]] void raise(Policy::PolicyErrorCode code, int line) {
    parseError::raise(code, QORFileLocation(kSourceFile, line));
}

constexpr int kReadAhead = 4096;
constexpr long long kMaxLeft = 65536;  // of a body, behind what was read of it

bool blankIsNext(ZULBufferedInputStream& is) {
    int have = 0;
    char const* const next = is.peek(have);
    return have > 0 && isBlank(*next);
}

void requireAnotherField(int left) {
    if (left == 0) raise(Policy::HTTP_ERR_TOO_MANY_HEADERS, __LINE__);
}

[[noreturn]] void raiseEndOfHead(int line) {
    raise(HTTPException::HTTP_ERR_END_OF_STREAM, parseError::kProcessHeaders, line);
}

template <class Number>
Number limit(int given) {
    return given > 0 ? static_cast<Number>(given) : std::numeric_limits<Number>::max();
}

}  // namespace

HTTPPolicyParser::HTTPPolicyParser(HTTPParser& parser, HTTPReadPolicy const& policy)
    : m_parser(parser),
      m_steps(0),
      m_policy(policy),
      m_maxLine(limit<unsigned int>(policy.maxLine)),
      m_headLeft(0),
      m_headTooLarge(Policy::HTTP_ERR_HEAD_TOO_LARGE),
      m_bodyLeft(0),
      m_uncounted(0),
      m_partsLeft(0),
      m_status(0),
      m_bounded(false) {
    // Streams hold on to the boundary of the level around theirs while deeper ones are added.
    m_parser.m_boundaries.reserve(HTTPParser::HTTP_MAX_DEPTH);
    startMessage();
}

bool HTTPPolicyParser::changesReading(HTTPReadPolicy const& p) {
    return p.boundMessage || p.partsEndAtBoundary || p.strictFraming || p.maxLine > 0 ||
           p.maxHead > 0 || p.maxHeaders > 0 || p.maxParts > 0 || p.maxPartHead > 0 ||
           p.maxBody > 0 || p.maxChunkFraming > 0 || p.maxChunkFramingRatio > 0;
}

void HTTPPolicyParser::startMessage() {
    m_headLeft = limit<long long>(m_policy.maxHead);
    m_headTooLarge = Policy::HTTP_ERR_HEAD_TOO_LARGE;
    m_bodyLeft = limit<long long>(m_policy.maxBody);
    m_uncounted = LLONG_MAX;
    m_partsLeft = limit<int>(m_policy.maxParts);
    m_status = 0;
    m_bounded = false;
}

// Lines

// The next line, as it came but for its end; false when the input ends before that, or, where that
// is not strict, before its first byte.
bool HTTPPolicyParser::readLine(ZULBufferedInputStream& is, Code tooLong) {
    m_parser.m_line.reset();
    return appendLine(is, tooLong);
}

bool HTTPPolicyParser::appendLine(ZULBufferedInputStream& is, Code tooLong) {
    QORByteBuffer& line = m_parser.m_line;
    for (;;) {
        int have = 0;
        char const* const bytes = is.peek(have);
        if (have == 0) return line.pcount() > 0 && !m_policy.strictFraming;
        void const* const lf = std::memchr(bytes, '\n', static_cast<unsigned int>(have));
        int const piece = lf ? static_cast<int>(static_cast<char const*>(lf) - bytes) : have;
        // Nearly always a whole line with its CRLF: then no byte of that is copied.
        bool const endsInCrLf = lf && piece > 0 && bytes[piece - 1] == '\r';
        auto const more = static_cast<unsigned int>(piece);
        if (line.pcount() + more > m_maxLine) requireRoom(bytes, more, tooLong);
        int const taken = lf ? piece + 1 : piece;
        takeOfHead(taken);
        line.appendChars(bytes, endsInCrLf ? more - 1 : more);
        is.skip(taken);
        if (!lf) continue;
        unsigned int const length = line.pcount();
        if (piece == 0 && length > 0 && line.str()[length - 1] == '\r') line.setLength(length - 1);
        return true;
    }
}

// Above the limit. A CR at the end may belong to the line's end, and does not count then. Of two
// limits the one that the bytes meet first is told, however many of them came at once.
void HTTPPolicyParser::requireRoom(char const* bytes, unsigned int more, Code tooLong) const {
    QORByteBuffer const& line = m_parser.m_line;
    unsigned int const before = line.pcount();
    bool const lastIsCr = (more > 0 ? bytes[more - 1] : line.str()[before - 1]) == '\r';
    if (before + more == m_maxLine + 1 && lastIsCr) return;
    bool const crIsFirst = before > m_maxLine || bytes[m_maxLine - before] == '\r';
    if (m_headLeft < static_cast<long long>(m_maxLine) - before + (crIsFirst ? 1 : 0))
        raiseHeadTooLarge();
    raise(tooLong, __LINE__);
}

void HTTPPolicyParser::raiseHeadTooLarge() const { raise(m_headTooLarge, __LINE__); }

// Whether the line ends a head. The default takes white space alone for nothing, too.
bool HTTPPolicyParser::isEmptyLine() {
    if (!m_policy.strictFraming) m_parser.m_line.trim();
    return m_parser.m_line.pcount() == 0;
}

// Start lines

// Empty lines in front of one are passed over, RFC 9112 section 2.2.
void HTTPPolicyParser::readStartLine(ZULBufferedInputStream& is, char const* method) {
    do {
        if (!readLine(is, Policy::HTTP_ERR_START_LINE_TOO_LONG))
            raise(HTTPException::HTTP_ERR_END_OF_STREAM, method, __LINE__);
    } while (isEmptyLine());
}

void HTTPPolicyParser::readRequestLine(ZULBufferedInputStream& is) {
    Step const step(m_steps);
    readStartLine(is, parseError::kParseRequest);
    if (m_policy.strictFraming) m_rules.judgeRequestLine(m_parser.m_line);
    m_parser.validateRequestLine(m_parser.m_line);
}

void HTTPPolicyParser::readStatusLine(ZULBufferedInputStream& is) {
    Step const step(m_steps);
    readStartLine(is, parseError::kParseResponse);
    if (!m_policy.strictFraming) return m_parser.validateResponseLine(m_parser.m_line);
    // Only the last head of a response is told of, RFC 9110 section 15.2.
    while (judgeStatusLine() / 100 == 1) {
        skipInterimHead(is);
        readStartLine(is, parseError::kParseResponse);
    }
    HTTPMsgHandler& handler = *m_parser.m_pHandler;
    handler.setStatusCode(static_cast<HTTPMessage::StatusCode>(m_status));
    m_parser.m_line.trim();
    char const* reason = m_parser.m_line.str() + std::min(m_parser.m_line.pcount(), 12U);
    while (isBlank(*reason)) ++reason;
    handler.setStatusMessage(reason);
}

int HTTPPolicyParser::judgeStatusLine() {
    constexpr std::size_t kVersion = 8;
    std::string_view const line(m_parser.m_line.str(), m_parser.m_line.pcount());
    if (!m_parser.recordVersion(line.substr(0, std::min(line.find(' '), line.size()))))
        raise(HTTPException::HTTP_ERR_VERSION, parseError::kValidateResponseLine, __LINE__);
    return m_status = m_rules.judgeStatusLine(m_parser.m_line, kVersion);
}

void HTTPPolicyParser::skipInterimHead(ZULBufferedInputStream& is) {
    for (;;) {
        readHeadLine(is);
        if (isEmptyLine()) return;
        m_rules.judgeFieldLine(m_parser.m_line);
    }
}

// Header lines

void HTTPPolicyParser::readHeadLine(ZULBufferedInputStream& is) {
    if (!readLine(is, Policy::HTTP_ERR_HEADER_LINE_TOO_LONG)) raiseEndOfHead(__LINE__);
}

void HTTPPolicyParser::readHead(ZULBufferedInputStream& is) {
    Step const step(m_steps);
    if (m_policy.strictFraming) return readStrictHead(is);
    for (int left = limit<int>(m_policy.maxHeaders);; --left) {
        readHeadLine(is);
        if (isEmptyLine()) return;
        requireAnotherField(left);
        m_parser.processHeader(m_parser.m_line);
    }
}

void HTTPPolicyParser::readStrictHead(ZULBufferedInputStream& is) {
    QORByteBuffer& line = m_parser.m_line;
    bool const isPart = depth() > 0;
    m_rules.startHead(isPart);
    for (int left = limit<int>(m_policy.maxHeaders);; --left) {
        readHeadLine(is);
        if (line.pcount() == 0) break;
        requireAnotherField(left);
        if (isPart) joinContinuations(is);
        char* const colon = m_rules.judgeFieldLine(line);
        *colon = '\0';
        auto const length = static_cast<std::size_t>(colon - line.str());
        m_parser.reportHeader({line.str(), length}, colon + 1);
    }
    m_rules.endHead(m_parser.m_minorVersion);
}

// RFC 9112 section 5.2 has no place for them in the message's head; MIME, which parts come from,
// does: RFC 2046 section 5.1. One blank stands for the line's end and the white space around it.
void HTTPPolicyParser::joinContinuations(ZULBufferedInputStream& is) {
    QORByteBuffer& line = m_parser.m_line;
    while (blankIsNext(is)) {
        unsigned int length = line.pcount();
        while (length > 0 && isBlank(line.str()[length - 1])) --length;
        line.setLength(length);
        line << ' ';
        do {
            takeOfHead(1);
            is.skip(1);
        } while (blankIsNext(is));
        if (!appendLine(is, Policy::HTTP_ERR_HEADER_LINE_TOO_LONG)) raiseEndOfHead(__LINE__);
    }
}

void HTTPPolicyParser::judgeContentType() {
    if (m_policy.strictFraming) m_rules.judgeContentType();
}

void HTTPPolicyParser::judgeContentLength(char const* text) {
    if (m_policy.strictFraming) m_rules.judgeContentLength(text);
}

void HTTPPolicyParser::judgeTransferEncoding(char const* text) {
    if (m_policy.strictFraming) m_rules.judgeTransferEncoding(text);
}

void HTTPPolicyParser::judgeHost() {
    if (m_policy.strictFraming) m_rules.judgeHost();
}

char const* HTTPPolicyParser::boundaryOf(HTTPHeader& type, char const* text) {
    return m_policy.strictFraming ? m_rules.boundaryOf(text).c_str()
                                  : type.getAttribute("boundary");
}

// Bodies

HTTPPolicyParser::Framing HTTPPolicyParser::framing() const {
    bool const declared = m_parser.m_bLengthDeclared[depth()];
    bool const chunked = m_parser.m_bChunking[depth()];
    int const length = m_parser.m_contentlength[depth()];
    if (length < 0) raise(Policy::HTTP_ERR_LENGTH_NOT_DIGITS, __LINE__);
    if (chunked && length > 0) raise(Policy::HTTP_ERR_LENGTH_AND_CODING, __LINE__);
    if (m_policy.strictFraming && depth() == 0) {
        // RFC 9112 section 6.3, items 1 and 7.
        if (m_parser.m_isRequest ? !chunked && !declared : m_status == 204 || m_status == 304)
            return Framing::None;
    }
    if (chunked) return Framing::Chunks;
    // Unless its level is bound, the length of a multipart body is not used, as by default.
    bool const used = m_policy.boundMessage || !m_parser.m_bMultipart[depth()];
    if (declared && (used || !enclosingBoundary())) return Framing::Length;
    return enclosingBoundary() ? Framing::Boundary : Framing::Rest;
}

// The one before whose delimiters parts of this level end, or null.
std::string const* HTTPPolicyParser::enclosingBoundary() const {
    auto const& boundaries = m_parser.m_boundaries;
    std::size_t const own = m_parser.m_bMultipart[depth()] ? 1 : 0;
    if (!m_policy.partsEndAtBoundary || depth() == 0 || boundaries.size() <= own) return nullptr;
    return &boundaries[boundaries.size() - own - 1];
}

void HTTPPolicyParser::readBody(ZULBufferedInputStream& is) try {
    Step const step(m_steps);
    Framing const framing = this->framing();
    int const length = m_parser.m_contentlength[depth()];
    // Asked for while the level's own boundary still stands.
    std::string const* const boundary = enclosingBoundary();
    if (framing != Framing::None && framing != Framing::Rest && length > m_bodyLeft)
        raise(Policy::HTTP_ERR_BODY_TOO_LARGE, __LINE__);
    if (framing == Framing::Chunks || length > 0) m_parser.askForBody(is);
    switch (framing) {
        case Framing::None:
            return readNone(is);
        case Framing::Length:
            readLength(is, length);
            break;
        case Framing::Chunks: {
            ZULChunkedInputStream decoder(is);
            ChunkStream body(decoder, m_policy, allowance());
            deliver(body);
            break;
        }
        case Framing::Boundary: {
            BoundaryStream body(is, *boundary, true, allowance());
            return deliver(body);
        }
        case Framing::Rest:
            return readRest(is);
    }
    if (boundary) requireDelimiter(is, *boundary, framing == Framing::Chunks || length == 0);
} catch (HTTPException& e) {
    e.addBackTrace(QORFileLocation(kSourceFile, __LINE__), parseError::kProcessEntities,
                   "QOR_RETHROW");
    throw;
}

// What is read of a multipart level is counted where its parts are read.
long long& HTTPPolicyParser::allowance() {
    return m_parser.m_bMultipart[depth()] ? m_uncounted : m_bodyLeft;
}

void HTTPPolicyParser::readNone(ZULBufferedInputStream& is) {
    LengthStream body(is, 0, Policy::HTTP_ERR_BODY_CUT, m_bodyLeft);
    m_parser.m_pHandler->content(body, 0);
}

void HTTPPolicyParser::readLength(ZULBufferedInputStream& is, int length) {
    if (m_parser.m_bMultipart[depth()] && !m_policy.boundMessage) return readParts(is);
    // Within a body that ends by itself only that end can be met: the input's is told there.
    auto const cut = m_bounded ? Policy::HTTP_ERR_BODY_OVERRUN : Policy::HTTP_ERR_BODY_CUT;
    LengthStream body(is, length, cut, allowance());
    deliver(body, length);
}

// To the end of the stream, or to the closing delimiter.
void HTTPPolicyParser::readRest(ZULBufferedInputStream& is) {
    bool const multipart = m_parser.m_bMultipart[depth()];
    if (depth() == 0) m_parser.m_tookAll = !multipart || !m_parser.m_isRequest;
    if (multipart) return readParts(is);
    LengthStream body(is, m_bodyLeft);
    m_parser.m_pHandler->content(body);
}

void HTTPPolicyParser::deliver(FramedStream& body, int length) {
    HTTPMsgHandler& handler = *m_parser.m_pHandler;
    long long const most = m_policy.boundMessage ? kMaxLeft : LLONG_MAX;
    if (m_parser.m_bMultipart[depth()]) {
        ZULBufferedInputStream buffered(body, kReadAhead);
        bool const outer = std::exchange(m_bounded, true);
        readParts(buffered);
        m_bounded = outer;
        return FramedStream::drain(buffered, most);
    }
    if (length >= 0)
        handler.content(body, length);
    else
        handler.content(body);
    // Unless the message is bound, what a handler leaves of a length is read as what follows.
    if (length < 0 || m_policy.boundMessage) FramedStream::drain(body, most);
}

// Parts

void HTTPPolicyParser::readParts(ZULBufferedInputStream& is) {
    auto& boundaries = m_parser.m_boundaries;
    QOR_ASSERT(!boundaries.empty());
    m_parser.m_pHandler->startMultiParts(boundaries.back().c_str());
    while (!findDelimiter(is)) readPart(is);
    m_parser.m_pHandler->endMultiParts(boundaries.back().c_str());
    boundaries.pop_back();
}

// Passes over what stands before the next delimiter, and takes it; whether it is the closing one.
bool HTTPPolicyParser::findDelimiter(ZULBufferedInputStream& is) {
    std::string const& boundary = m_parser.m_boundaries.back();
    if (m_policy.partsEndAtBoundary) {
        BoundaryStream skipped(is, boundary, true, m_bodyLeft);
        FramedStream::drain(skipped, LLONG_MAX);
        return skipped.takeDelimiter();
    }
    return findDelimiterLine(is, "--" + boundary);
}

// As the default looks for it: white space around the line does not matter.
bool HTTPPolicyParser::findDelimiterLine(ZULBufferedInputStream& is, std::string const& separator) {
    QORByteBuffer& line = m_parser.m_line;
    m_headTooLarge = Policy::HTTP_ERR_BODY_TOO_LARGE;
    for (;;) {
        m_headLeft = m_bodyLeft;
        if (!readLine(is, Policy::HTTP_ERR_HEADER_LINE_TOO_LONG) && line.pcount() == 0)
            raise(HTTPException::HTTP_ERR_MISSING_BOUNDARY, parseError::kProcessEntities, __LINE__);
        m_bodyLeft = m_headLeft;
        line.trim();
        std::string_view const text(line.str(), line.pcount());
        if (text == separator) return false;
        if (text == separator + "--") return true;
    }
}

void HTTPPolicyParser::requireDelimiter(ZULBufferedInputStream& is, std::string const& boundary,
                                        bool atLineStart) {
    if (!BoundaryStream(is, boundary, atLineStart, m_uncounted).atDelimiter())
        raise(Policy::HTTP_ERR_NO_DELIMITER, __LINE__);
}

void HTTPPolicyParser::readPart(ZULBufferedInputStream& is) {
    Step const step(m_steps);
    if (depth() + 1 == HTTPParser::HTTP_MAX_DEPTH) raise(Policy::HTTP_ERR_NESTING, __LINE__);
    if (m_partsLeft-- == 0) raise(Policy::HTTP_ERR_TOO_MANY_PARTS, __LINE__);
    ++m_parser.m_idepth;
    m_parser.resetLevel();
    m_headLeft = limit<long long>(m_policy.maxPartHead);
    m_headTooLarge = Policy::HTTP_ERR_PART_HEAD_TOO_LARGE;
    m_parser.m_pHandler->startPart();
    readHead(is);
    readBody(is);
    --m_parser.m_idepth;
    m_parser.m_pHandler->endPart();
}
