#include "parser/HTTPParser.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"

#include "foundation/AsciiText.h"
#include "foundation/GuardedAllocation.h"
#include "foundation/HTTPException.h"
#include "foundation/StringTokenizer.h"
#include "parser/HTTPParseError.h"
#include "parser/HTTPPolicyParser.h"

static char const kSourceFile[] = "HTTPParser";

namespace {

using parseError::kParseRequest;
using parseError::kParseResponse;
using parseError::kProcessEntities;
using parseError::kProcessHeaders;
using parseError::kValidateResponseLine;
using parseError::raise;

constexpr char kValidateRequestLine[] =
    "void HTTPParser::validateRequestLine( QORByteBuffer &line )";
constexpr char kProcessHeader[] = "void HTTPParser::processHeader( QORByteBuffer &osline )";

// The words of a start line; a missing one is the error of that line.
class StartLine {
public:
    StartLine(QORByteBuffer& line, HTTPException::plexaErrorCode missing, char const* method)
        : m_words(line.str(), " \t", 0), m_missing(missing), m_method(method) {}

    char const* next() {
        requireWord();
        return m_words.nextToken();
    }
    char const* rest() {
        requireWord();
        return m_words.theRest();
    }

private:
    void requireWord() {
        if (!m_words.hasMoreTokens()) raise(m_missing, m_method, __LINE__);
    }

    QORStringTokenizer m_words;
    HTTPException::plexaErrorCode m_missing;
    char const* m_method;
};

// Whether HTTPMessage::trim could take something off the text: hardly ever for a header's name.
bool mayNeedTrimming(char const* text, char const* end) {
    auto const isTrimmed = [](char c) { return isAsciiSpace(c) || c == '"'; };
    return text != end && (isTrimmed(*text) || isTrimmed(end[-1]));
}

struct Number {
    int value;
    bool hasDigits;
};

// Base 10 as strtol reads it, but without the process's locale and with the limits of int on every
// target, where long may be wider.
Number readNumber(char const* text) {
    while (isAsciiSpace(*text)) ++text;
    bool const negative = *text == '-';
    if (negative || *text == '+') ++text;
    char const* const digits = text;
    long long const limit = negative ? -static_cast<long long>(INT_MIN) : INT_MAX;
    long long value = 0;
    for (; isDigit(*text); ++text) value = std::min(value * 10 + (*text - '0'), limit);
    return {static_cast<int>(negative ? -value : value), text != digits};
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
                                                        *m_decoder, 4096)
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

void parseError::raise(HTTPException::plexaErrorCode code, char const* method, int line) {
    HTTPException error(code);
    error << QORMessage(
        I18NString(HTTPException::getMessageString(code), nullptr, -1, nullptr, nullptr));
    error.hurl(QORFileLocation(kSourceFile, line), method, "QOR_THROW");
}

void parseError::raise(HTTPPolicyException::PolicyErrorCode code, QORFileLocation const& where) {
    HTTPPolicyException(code).hurl(where, nullptr, "QOR_THROW");
}

HTTPMsgHandler::~HTTPMsgHandler() = default;

void HTTPMsgHandler::startMultiParts(char const*) {}

void HTTPMsgHandler::startPart() {}

void HTTPMsgHandler::endPart() {}

void HTTPMsgHandler::endMultiParts(char const*) {}

HTTPParser::HTTPParser()
    : m_pHandler(nullptr),
      m_bChunking(),
      m_bMultipart(),
      m_idepth(0),
      m_contentlength(),
      m_bLengthDeclared(),
      m_line(256, 256),
      m_continueCallback(nullptr),
      m_continueContext(nullptr),
      m_minorVersion(1),
      m_isRequest(false),
      m_saysClose(false),
      m_saysKeepAlive(false),
      m_expectsContinue(false),
      m_tookAll(false),
      m_wasRead(false) {}

HTTPParser::~HTTPParser() { m_pHandler = nullptr; }

void HTTPParser::setMsgHandler(HTTPMsgHandler* handler) { m_pHandler = handler; }

void HTTPParser::setReadPolicy(HTTPReadPolicy const& policy) {
    QOR_ASSERT(!m_policy || !m_policy->isReading());
    std::unique_ptr<HTTPPolicyParser> reading;
    if (HTTPPolicyParser::changesReading(policy))
        reading =
            guardedNew<HTTPPolicyParser>(QORFileLocation(kSourceFile, __LINE__), *this, policy);
    m_policy = std::move(reading);
}

void HTTPParser::setContinueCallback(void (*callback)(void*), void* context) {
    m_continueCallback = callback;
    m_continueContext = context;
}

bool HTTPParser::keepAlive() const {
    return m_wasRead && !m_tookAll && !m_saysClose && (m_minorVersion > 0 || m_saysKeepAlive);
}

void HTTPParser::parseRequest(ZULBufferedInputStream* is) {
    startMessage(is, true);
    if (m_policy) {
        m_policy->readRequestLine(*is);
    } else {
        readStartLine(*is, kParseRequest);
        validateRequestLine(m_line);
    }
    endMessage(is);
}

void HTTPParser::parseResponse(ZULBufferedInputStream* is) {
    startMessage(is, false);
    if (m_policy) {
        m_policy->readStatusLine(*is);
    } else {
        readStartLine(*is, kParseResponse);
        validateResponseLine(m_line);
    }
    endMessage(is);
}

void HTTPParser::startMessage(ZULBufferedInputStream* is, bool isRequest) {
    QOR_ASSERT(is);
    QOR_ASSERT(m_pHandler);
    m_idepth = 0;
    resetLevel();
    m_boundaries.clear();
    m_isRequest = isRequest;
    m_saysClose = m_saysKeepAlive = m_expectsContinue = m_tookAll = m_wasRead = false;
    if (m_policy) m_policy->startMessage();
    m_pHandler->reset();
}

// Left in m_line.
void HTTPParser::readStartLine(ZULBufferedInputStream& is, char const* method) {
    do {
        if (!readLine(is)) raise(HTTPException::HTTP_ERR_END_OF_STREAM, method, __LINE__);
    } while (m_line.pcount() == 0);
}

void HTTPParser::endMessage(ZULBufferedInputStream* is) {
    processHeaders(is);
    processEntities(is);
    m_pHandler->endMessage();
    m_wasRead = true;
}

void HTTPParser::resetLevel() {
    m_bMultipart[m_idepth] = false;
    m_bChunking[m_idepth] = false;
    m_contentlength[m_idepth] = 0;
    m_bLengthDeclared[m_idepth] = false;
}

// The next line without white space at its ends; false at the end of the stream.
bool HTTPParser::readLine(ZULBufferedInputStream& is) {
    m_line.reset();
    if (is.readLine(m_line) == -1) return false;
    unsigned int const length = m_line.pcount();
    char const* const text = m_line.str();
    if (length > 0 && (isAsciiSpace(text[0]) || isAsciiSpace(text[length - 1]))) m_line.trim();
    return true;
}

bool HTTPParser::recordVersion(std::string_view word) {
    if (word != "HTTP/1.1" && word != "HTTP/1.0") return false;
    m_minorVersion = word.back() - '0';
    return true;
}

void HTTPParser::validateRequestLine(QORByteBuffer& line) {
    QOR_ASSERT(m_pHandler);
    StartLine words(line, HTTPException::HTTP_ERR_BAD_REQUEST_LINE, kValidateRequestLine);
    if (std::strcmp(words.next(), "POST") != 0)
        raise(HTTPException::HTTP_ERR_METHOD_NOT_POST, kValidateRequestLine, __LINE__);
    m_pHandler->setURI(words.next());
    if (!recordVersion(words.next()))
        raise(HTTPException::HTTP_ERR_VERSION, kValidateRequestLine, __LINE__);
}

void HTTPParser::validateResponseLine(QORByteBuffer& line) {
    QOR_ASSERT(m_pHandler);
    StartLine words(line, HTTPException::HTTP_ERR_BAD_RESPONSE_LINE, kValidateResponseLine);
    if (!recordVersion(words.next()))
        raise(HTTPException::HTTP_ERR_VERSION, kValidateResponseLine, __LINE__);
    int const status = readNumber(words.next()).value;
    m_pHandler->setStatusCode(static_cast<HTTPMessage::StatusCode>(status));
    m_pHandler->setStatusMessage(words.rest());
}

void HTTPParser::processHeaders(ZULBufferedInputStream* is) {
    QOR_ASSERT(is);
    if (m_policy) return m_policy->readHead(*is);
    for (;;) {
        if (!readLine(*is)) raise(HTTPException::HTTP_ERR_END_OF_STREAM, kProcessHeaders, __LINE__);
        if (m_line.pcount() == 0) return;
        processHeader(m_line);
    }
}

void HTTPParser::processHeader(QORByteBuffer& osline) {
    QOR_ASSERT(m_pHandler);
    // The line is cut in two where it stands; a caller's is left alone.
    if (&osline != &m_line) {
        m_line.reset();
        m_line << osline.str();
    }
    char* const name = m_line.str();
    char* const colon = std::strchr(name, ':');
    if (!colon) return;
    *colon = '\0';
    bool const needsTrimming = mayNeedTrimming(name, colon);  // its letters do not matter
    toLowerCase(name, colon);
    if (needsTrimming) {
        std::string trimmed(name, colon);
        HTTPMessage::trim(trimmed);
        char* const moved = colon - trimmed.size();  // so that one zero byte parts it from the text
        trimmed.copy(moved, trimmed.size());
        reportHeader({moved, trimmed.size()}, colon + 1);
    } else {
        reportHeader({name, static_cast<std::size_t>(colon - name)}, colon + 1);
    }
}

// The name, in lower case, and the text behind the colon, each followed by a zero byte.
void HTTPParser::reportHeader(std::string_view name, char const* text) {
    postwire::internal::HeaderLine const line{name.data(), name.size(), std::strlen(text)};
    m_header.borrow(line);
    if (name == "content-type")
        recordContentType(text);
    else if (name == "content-length")
        recordContentLength(text);
    else if (name == "transfer-encoding")
        recordTransferEncoding(text);
    else if (m_idepth == 0)
        recordConnection(name, text);
    m_header.borrow(line);  // again, where its text has been taken apart
    m_pHandler->header(name.data(), &m_header);
}

// What a message says of its connection.
void HTTPParser::recordConnection(std::string_view name, char const* text) {
    if (name == "connection") {
        forEachItem(text, [this](std::string_view item) {
            m_saysClose = m_saysClose || equalsInAnyCase(item, "close");
            m_saysKeepAlive = m_saysKeepAlive || equalsInAnyCase(item, "keep-alive");
        });
    } else if (name == "expect") {
        forEachItem(text, [this](std::string_view item) {
            m_expectsContinue = m_expectsContinue || equalsInAnyCase(item, "100-continue");
        });
    } else if (m_policy && name == "host") {
        m_policy->judgeHost();
    }
}

// Where the header's value begins, whose text this is: only a value in quotes, or one that is
// empty, has to be taken apart to tell.
char const* HTTPParser::startOfValue(char const* text) {
    while (isAsciiSpace(*text)) ++text;
    bool const isPlain = *text != '"' && *text != ';' && *text != '\0';
    return isPlain ? text : m_header.getValue();
}

void HTTPParser::recordContentType(char const* text) {
    if (m_policy) m_policy->judgeContentType();
    char const* const type = startOfValue(text);
    if (!*type) raise(HTTPException::HTTP_ERR_BAD_CONTENT_TYPE, kProcessHeader, __LINE__);
    if (!beginsInAnyCase(type, "multipart/")) return;
    char const* const boundary =
        m_policy ? m_policy->boundaryOf(m_header, text) : m_header.getAttribute("boundary");
    if (!boundary || !*boundary)
        raise(HTTPException::HTTP_ERR_NO_BOUNDARY, kProcessHeader, __LINE__);
    // One boundary a level: a second would be taken for that of the level around it.
    if (m_bMultipart[m_idepth] && !m_boundaries.empty())
        m_boundaries.back() = boundary;
    else
        m_boundaries.emplace_back(boundary);
    m_bMultipart[m_idepth] = true;
}

void HTTPParser::recordContentLength(char const* text) {
    if (m_policy) m_policy->judgeContentLength(text);
    char const* const value = startOfValue(text);
    if (!*value) raise(HTTPException::HTTP_ERR_BAD_CONTENT_LENGTH, kProcessHeader, __LINE__);
    Number const length = readNumber(value);
    m_contentlength[m_idepth] = length.value;
    m_bLengthDeclared[m_idepth] = length.hasDigits;
}

void HTTPParser::recordTransferEncoding(char const* text) {
    if (m_policy) m_policy->judgeTransferEncoding(text);
    std::string_view const coding = m_header.getValue();
    if (coding.empty())
        raise(HTTPException::HTTP_ERR_BAD_TRANSFER_ENCODING, kProcessHeader, __LINE__);
    m_bChunking[m_idepth] = equalsInAnyCase(coding, "chunked");
}

void HTTPParser::processEntities(ZULBufferedInputStream* is) {
    QOR_ASSERT(is);
    QOR_ASSERT(m_pHandler);
    if (m_policy) return m_policy->readBody(*is);
    int const length = m_contentlength[m_idepth];
    // A length of 0 yields to chunked coding, any other may not stand beside it: two servers in a
    // row could each believe another one of the two (RFC 9112 section 6.3).
    bool const byLength = length != 0 || (m_bLengthDeclared[m_idepth] && !m_bChunking[m_idepth]);
    if (m_continueCallback && (length > 0 || m_bChunking[m_idepth])) askForBody(*is);
    if (byLength && !m_bMultipart[m_idepth]) {
        QOR_ASSERT(!m_bChunking[m_idepth]);
        m_pHandler->content(*is, length);
        return;
    }
    try {
        if (m_bChunking[m_idepth]) {
            QOR_ASSERT(m_contentlength[m_idepth] == 0);
            ChunkedBody body(*is);
            processBody(body.stream());
            body.drain();
        } else {
            bool const endsByItself = m_bMultipart[0] && (m_isRequest || m_bLengthDeclared[0]);
            m_tookAll = m_tookAll || (m_idepth == 0 && !endsByItself);
            processBody(*is);
        }
    } catch (HTTPException& e) {
        e.addBackTrace(QORFileLocation(kSourceFile, __LINE__), kProcessEntities, "QOR_RETHROW");
        throw;
    }
}

// The head has been read and the body is wanted.
void HTTPParser::askForBody(ZULBufferedInputStream const& is) {
    bool const waits = m_isRequest && m_expectsContinue && m_minorVersion > 0;
    if (waits && m_idepth == 0 && m_continueCallback && is.buffered() == 0)
        m_continueCallback(m_continueContext);
}

// A body whose end the stream or the closing boundary line tells.
void HTTPParser::processBody(ZULBufferedInputStream& is) {
    if (m_bMultipart[m_idepth])
        processParts(is);
    else
        m_pHandler->content(is);
}

// RFC 2046 section 5.1.1, but for white space around a boundary line and for the line end before
// it, which is taken for an empty line: where a part ends is for its own framing to say.
void HTTPParser::processParts(ZULBufferedInputStream& is) {
    QOR_ASSERT(!m_boundaries.empty());
    m_pHandler->startMultiParts(m_boundaries.back().c_str());
    std::string const closing = "--" + m_boundaries.back() + "--";
    std::string_view const separator(closing.data(), closing.size() - 2);
    for (;;) {
        if (!readLine(is))
            raise(HTTPException::HTTP_ERR_MISSING_BOUNDARY, kProcessEntities, __LINE__);
        std::string_view const line(m_line.str(), m_line.pcount());
        if (line == separator) {
            processPart(&is);
        } else if (line == closing) {
            break;
        }
    }
    m_pHandler->endMultiParts(m_boundaries.back().c_str());
    m_boundaries.pop_back();
}

void HTTPParser::processPart(ZULBufferedInputStream* is) {
    QOR_ASSERT(m_pHandler);
    if (m_policy) return m_policy->readPart(*is);
    QOR_ASSERT(m_idepth + 1 < HTTP_MAX_DEPTH);
    ++m_idepth;
    resetLevel();
    m_pHandler->startPart();
    processHeaders(is);
    processEntities(is);
    --m_idepth;
    m_pHandler->endPart();
}
