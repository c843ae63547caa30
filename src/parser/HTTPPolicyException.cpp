#include "parser/HTTPPolicyException.h"

#include <iterator>

#include "foundation/GuardedAllocation.h"

static char const kSourceFile[] = "HTTPPolicyException";

namespace {

struct PolicyError {
    char const* text;
    int status;
};

// In the order of the codes, the first of which is HTTP_ERR_POLICY_FIRST.
constexpr PolicyError kPolicyErrors[] = {
    {"malformed start line", 400},
    {"malformed header line", 400},
    {"white space before the colon of a header line", 400},
    {"folded header line", 400},
    {"control character within a line", 400},
    {"Content-Length is not a number", 400},
    {"Content-Length is repeated with another value", 400},
    {"both Content-Length and Transfer-Encoding", 400},
    {"transfer coding other than chunked", 501},
    {"Transfer-Encoding is repeated", 400},
    {"Transfer-Encoding in HTTP/1.0", 400},
    {"Content-Type is repeated", 400},
    {"Host is repeated", 400},
    {"malformed boundary attribute", 400},
    {"the input ends inside the body", 400},
    {"a part is longer than the body around it", 400},
    {"too much behind the end of the body", 413},
    {"no MIME boundary behind a part with a length", 400},
    {"parts are nested too deeply", 400},
    {"malformed chunk size", 400},
    {"chunk size too large", 413},
    {"chunk data, size or trailer without CRLF", 400},
    {"malformed chunk extension", 400},
    {"malformed trailer", 400},
    {"start line too long", 414},
    {"header line too long", 431},
    {"head too large", 431},
    {"too many header lines", 431},
    {"head of a part too large", 413},
    {"too many parts", 413},
    {"body too large", 413},
    {"too much chunk framing", 413},
    {"malformed request target", 400},
    {"no Host in an HTTP/1.1 request", 400},
    {"malformed Host", 400},
    {"a line ends in LF without CR", 400},
};

// Null for a code that is not of a policy.
PolicyError const* policyError(long code) {
    long const index = code - HTTPPolicyException::HTTP_ERR_POLICY_FIRST;
    bool const known = index >= 0 && index < static_cast<long>(std::size(kPolicyErrors));
    return known ? &kPolicyErrors[index] : nullptr;
}

}  // namespace

HTTPPolicyException::HTTPPolicyException(PolicyErrorCode code) : HTTPException(long{code}) {
    if (char const* const text = getMessageString(code))
        *this << QORMessage(I18NString(text, nullptr, -1, nullptr, nullptr));
}

HTTPPolicyException::HTTPPolicyException(HTTPPolicyException const&) = default;

HTTPPolicyException& HTTPPolicyException::operator=(HTTPPolicyException const&) = default;

HTTPPolicyException::~HTTPPolicyException() = default;

HTTPPolicyException* HTTPPolicyException::clone() const {
    return guardedNew<HTTPPolicyException>(QORFileLocation(kSourceFile, __LINE__), *this).release();
}

void HTTPPolicyException::hurl(QORFileLocation const& where, char const* method,
                               char const* macro) {
    addBackTrace(where, method, macro);
    throw HTTPPolicyException(*this);
}

char const* HTTPPolicyException::getThrowableName() const { return "HTTPPolicyException"; }

char const* HTTPPolicyException::getMessageString(PolicyErrorCode code) {
    PolicyError const* const error = policyError(code);
    return error ? error->text : nullptr;
}

int HTTPPolicyException::getHttpStatus(HTTPException const& error) {
    long const code = error.getCode();
    if (PolicyError const* const known = policyError(code)) return known->status;
    if (code == HTTP_ERR_METHOD_NOT_POST) return 405;
    if (code == HTTP_ERR_VERSION) return 505;
    // A code of the program's own, from its handler.
    return code >= HTTP_ERR_FIRST && code <= HTTP_ERR_MISSING_BOUNDARY ? 400 : 500;
}
