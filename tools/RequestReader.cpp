#include "tools/RequestReader.h"

#include <algorithm>
#include <string_view>

#include "foundation/ZULOutputStream.h"

#include "tools/HeaderFields.h"

namespace {

constexpr int kReadAhead = 16384;
constexpr int kMaxLine = 16384;
constexpr std::size_t kMaxFields = 100;
constexpr std::size_t kMaxParts = 1000;

// How many bytes a request may bring in all: its bodies, an eighth more for chunk and multipart
// framing, and room for its head.
constexpr long long totalLimit(int maxBody) { return maxBody + maxBody / 8 + 65536LL; }

// The third word of a request line.
std::string_view version(std::string_view line) {
    for (int word = 0; word < 2; ++word) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        line.remove_prefix(std::min(line.find_first_of(" \t"), line.size()));
    }
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    return line.substr(0, line.find_first_of(" \t"));
}

}  // namespace

HTTPHeader* EntityHead::find(std::string_view name) {
    auto const found = std::find_if(fields.begin(), fields.end(),
                                    [name](Field const& field) { return field.name == name; });
    return found == fields.end() ? nullptr : &found->value;
}

RequestReader::RequestReader(ZULInputStream& in, ZULOutputStream& out, int maxBody)
    : m_limited(in, 0),
      m_in(m_limited, kReadAhead),
      m_out(out),
      m_line(256, 256),
      m_maxBody(maxBody) {
    m_parser.setMsgHandler(this);
    m_in.setMaxLine(kMaxLine);
}

RequestReader::~RequestReader() = default;

bool RequestReader::waitForRequest() {
    m_limited.setLimit(totalLimit(m_maxBody));
    for (;;) {
        int n = 0;
        char const* const bytes = m_in.peek(n);
        if (n == 0) return false;
        // A line end left behind the message before does not begin another, RFC 9112 section 2.2.
        if (*bytes != '\r' && *bytes != '\n') return true;
        m_in.skip(1);
    }
}

void RequestReader::read(Request& request) {
    m_request = &request;
    m_bodyLeft = m_maxBody;
    setMessage(&request.message);
    request.minorVersion = peekMinorVersion();
    m_parser.parseRequest(&m_in);
    request.keepAlive = wantsKeepAlive();
}

// From the request line, which is put back for the parser.
int RequestReader::peekMinorVersion() {
    m_line.reset();
    if (m_in.readLine(m_line) == -1) return 1;
    bool const old = version({m_line.str(), m_line.pcount()}) == "HTTP/1.0";
    m_line << "\r\n";
    m_in.unread(m_line.str(), static_cast<int>(m_line.pcount()));
    return old ? 0 : 1;
}

bool RequestReader::wantsKeepAlive() {
    std::string_view const connection = messageField("connection");
    if (listHolds(connection, "close")) return false;
    return m_request->minorVersion > 0 || listHolds(connection, "keep-alive");
}

void RequestReader::reset() {
    HTTPMOMMsgHandler::reset();
    m_request->uri.clear();
    m_request->heads.resize(1);
    m_request->heads.front().fields.clear();
    m_request->heads.front().multipart = false;
}

void RequestReader::setURI(char const* uri) { m_request->uri = uri; }

void RequestReader::header(char const* name, HTTPHeader* value) {
    EntityHead& head = m_request->heads.back();
    if (HTTPHeader* const before = head.find(name)) {
        *before = *value;
    } else {
        if (head.fields.size() == kMaxFields) throw RequestRefused(431, "too many header fields");
        head.fields.push_back({name, *value});
    }
    HTTPMOMMsgHandler::header(name, value);
}

void RequestReader::content(ZULInputStream& is, int length) {
    if (length > m_bodyLeft) throw SizeLimitPassed("the body is larger than this server takes");
    if (length > 0) beginBody();
    HTTPMOMMsgHandler::content(is, length);
    m_bodyLeft -= length;
}

void RequestReader::content(ZULInputStream& is) {
    if (&is == &m_in) {  // neither a length nor chunks
        if (m_request->heads.size() > 1)
            throw RequestRefused(400, "a part has neither Content-Length nor chunked coding");
        for (char const* const framing : {"content-length", "transfer-encoding"})
            if (m_request->heads.front().find(framing))
                throw RequestRefused(400, std::string("bad ") + framing);
        return;
    }
    beginBody();
    LimitedInputStream body(is, m_bodyLeft);
    HTTPMOMMsgHandler::content(body);
    m_bodyLeft = static_cast<int>(body.left());
}

void RequestReader::startMultiParts(char const* boundary) {
    beginBody();
    m_request->heads.back().multipart = true;
    HTTPMOMMsgHandler::startMultiParts(boundary);
}

void RequestReader::startPart() {
    if (m_request->heads.size() > kMaxParts) throw RequestRefused(413, "too many parts");
    m_request->heads.emplace_back();
    HTTPMOMMsgHandler::startPart();
}

// The head has been read and the body is wanted: a client that waits to hear so is told, RFC 9110
// section 10.1.1.
void RequestReader::beginBody() {
    static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    if (m_request->heads.size() > 1 || m_request->minorVersion == 0) return;
    if (!equalIgnoringCase(messageField("expect"), "100-continue")) return;
    m_out.write(kContinue, sizeof kContinue - 1);
    m_out.flush();
}

// The value of a field of the message's own head; empty where there is none.
std::string_view RequestReader::messageField(std::string_view name) {
    HTTPHeader* const field = m_request->heads.front().find(name);
    return field ? field->getValue() : "";
}
