#include "tools/serve/RequestReader.h"

#include <algorithm>
#include <string_view>

#include "foundation/ZULOutputStream.h"

#include "parser/HTTPReadPolicy.h"

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
    m_parser.setContinueCallback(&RequestReader::sendContinue, this);
    if (hardened) {
        HTTPReadPolicy policy = HTTPReadPolicy::hardened();
        policy.maxBody = std::max(maxBody, 1);  // 0 would be no limit
        m_parser.setReadPolicy(policy);
    }
    m_in.setMaxLine(kMaxLine);
}

RequestReader::~RequestReader() = default;

// An empty line left behind the message before does not begin another, RFC 9112 section 2.2. All
// else is for the parser to judge.
bool RequestReader::waitForRequest() {
    for (;;) {
        m_limited.setLimit(totalLimit(m_maxBody));
        int n = 0;
        char const* bytes = m_in.peek(n);
        if (n == 0) return false;
        if (*bytes != '\r') return true;
        m_in.skip(1);
        bytes = m_in.peek(n);
        if (n == 0 || *bytes != '\n') {
            m_in.unread("\r", 1);
            return true;
        }
        m_in.skip(1);
    }
}

void RequestReader::read(Request& request) {
    m_request = &request;
    m_bodyLeft = m_maxBody;
    setMessage(&request.message);
    m_parser.parseRequest(&m_in);
    request.minorVersion = m_parser.getMinorVersion();
    // Without a policy the end of a request is not safe to tell.
    request.keepAlive = m_hardened && m_parser.keepAlive();
}

// The head has been read and the body is wanted, RFC 9110 section 10.1.1.
void RequestReader::sendContinue(void* self) {
    static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    ZULOutputStream& out = static_cast<RequestReader*>(self)->m_out;
    out.write(kContinue, sizeof kContinue - 1);
    out.flush();
}

void RequestReader::reset() {
    HTTPMOMMsgHandler::reset();
    m_request->uri.clear();
    m_request->heads.resize(1);
    m_request->heads.front().fields.clear();
    m_request->heads.front().multipart = false;
    m_declaresLength = m_declaresCoding = false;
    m_nameCount = 0;
}

void RequestReader::setURI(char const* uri) { m_request->uri = uri; }

void RequestReader::header(char const* name, HTTPHeader* value) {
    if (!m_hardened) {  // else the policy does
        countField(name);
        if (m_request->heads.size() == 1) recordFraming(name);
    }
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

void RequestReader::recordFraming(std::string_view name) {
    m_declaresLength = m_declaresLength || name == "content-length";
    m_declaresCoding = m_declaresCoding || name == "transfer-encoding";
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
    HTTPMOMMsgHandler::content(is, length);
    m_bodyLeft -= length;
}

void RequestReader::content(ZULInputStream& is) {
    if (&is == &m_in) {  // neither a length nor chunks
        if (m_request->heads.size() > 1)
            throw RequestRefused(400, "a part has neither Content-Length nor chunked coding");
        if (m_declaresLength) throw RequestRefused(400, "bad content-length");
        if (m_declaresCoding) throw RequestRefused(400, "bad transfer-encoding");
        return;
    }
    LimitedInputStream body(is, m_bodyLeft);
    HTTPMOMMsgHandler::content(body);
    m_bodyLeft = static_cast<int>(body.left());
}

void RequestReader::startMultiParts(char const* boundary) {
    m_request->heads.back().multipart = true;
    HTTPMOMMsgHandler::startMultiParts(boundary);
}

void RequestReader::startPart() {
    if (m_request->heads.size() > kMaxParts) throw RequestRefused(413, "too many parts");
    m_request->heads.emplace_back();
    m_nameCount = 0;
    HTTPMOMMsgHandler::startPart();
}
