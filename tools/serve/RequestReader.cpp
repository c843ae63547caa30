#include "tools/serve/RequestReader.h"

#include <algorithm>
#include <string_view>

#include "foundation/ZULOutputStream.h"

#include "foundation/AsciiText.h"
#include "parser/HTTPReadPolicy.h"
#include "tools/common/HeaderFields.h"

namespace {

constexpr int kReadAhead = 16384;
constexpr int kMaxLine = 16384;
constexpr std::size_t kMaxFields = 100;
constexpr std::size_t kMaxParts = 1000;

// How many bytes a request may bring in all: its bodies, an eighth more for chunk and multipart
// framing, and room for its head.
constexpr long long totalLimit(long long maxBody) { return maxBody + maxBody / 8 + 65536; }

}  // namespace

HTTPHeader* EntityHead::find(std::string_view name) {
    auto const found = std::find_if(fields.begin(), fields.end(),
                                    [name](Field const& field) { return field.name == name; });
    return found == fields.end() ? nullptr : &found->value;
}

RequestReader::RequestReader(ZULInputStream& in, ZULOutputStream& out, int maxBody, bool keepFields,
                             bool hardened)
    : m_limited(in, 0),
      m_in(m_limited, kReadAhead),
      m_out(out),
      m_keepFields(keepFields),
      m_hardened(hardened),
      m_maxBody(maxBody) {
    m_parser.setMsgHandler(this);
    if (hardened) {
        HTTPReadPolicy policy = HTTPReadPolicy::hardened();
        policy.maxBody = std::max(maxBody, 1);  // 0 would be no limit
        m_parser.setReadPolicy(policy);
    }
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
    m_parser.parseRequest(&m_in);
    request.minorVersion = m_parser.getMinorVersion();
    // Not the parser's own answer: without a policy it takes a request without a body for one that
    // goes on to the end.
    request.keepAlive = wantsKeepAlive();
}

bool RequestReader::wantsKeepAlive() const {
    if (listHolds(m_own.connection, "close")) return false;
    return m_request->minorVersion > 0 || listHolds(m_own.connection, "keep-alive");
}

void RequestReader::reset() {
    HTTPMOMMsgHandler::reset();
    m_request->uri.clear();
    m_request->heads.resize(1);
    m_request->heads.front().fields.clear();
    m_request->heads.front().multipart = false;
    m_own.connection.clear();
    m_own.expect.clear();
    m_own.length = m_own.coding = false;
    m_nameCount = 0;
}

void RequestReader::setURI(char const* uri) { m_request->uri = uri; }

void RequestReader::header(char const* name, HTTPHeader* value) {
    if (!m_hardened) countField(name);  // else the policy counts
    if (m_request->heads.size() == 1) recordOwnField(name, *value);
    if (m_keepFields) keepField(name, *value);
    HTTPMOMMsgHandler::header(name, value);
}

// Fields with one name count once: only the last of them is held in the end. They are told apart
// where there are as many as may be, which is hardly ever.
void RequestReader::countField(char const* name) {
    if (m_nameCount == kMaxFields) {
        std::sort(m_names.begin(), m_names.end());
        auto const end = std::unique(m_names.begin(), m_names.end());
        m_nameCount = static_cast<std::size_t>(end - m_names.begin());
        if (m_nameCount == kMaxFields && !std::binary_search(m_names.begin(), end, name))
            throw RequestRefused(431, "too many header fields");
        if (m_nameCount == kMaxFields) return;
    }
    if (m_nameCount == m_names.size()) m_names.emplace_back();
    m_names[m_nameCount++] = name;
}

void RequestReader::recordOwnField(std::string_view name, HTTPHeader& value) {
    if (name == "connection") m_own.connection = value.getValue();
    if (name == "expect") m_own.expect = value.getValue();
    if (name == "content-length") m_own.length = true;
    if (name == "transfer-encoding") m_own.coding = true;
}

void RequestReader::keepField(char const* name, HTTPHeader const& value) {
    EntityHead& head = m_request->heads.back();
    if (HTTPHeader* const before = head.find(name)) {
        *before = value;
    } else {
        head.fields.push_back({name, value});
    }
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
        if (m_own.length) throw RequestRefused(400, "bad content-length");
        if (m_own.coding) throw RequestRefused(400, "bad transfer-encoding");
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
    m_nameCount = 0;
    HTTPMOMMsgHandler::startPart();
}

// The head has been read and the body is wanted: a client that waits to hear so is told, RFC 9110
// section 10.1.1.
void RequestReader::beginBody() {
    static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    if (m_request->heads.size() > 1 || m_parser.getMinorVersion() == 0) return;
    if (!equalsInAnyCase(m_own.expect, "100-continue")) return;
    m_out.write(kContinue, sizeof kContinue - 1);
    m_out.flush();
}
