#include "parser/HeadRules.h"

#include <algorithm>
#include <array>
#include <climits>
#include <string>

#include <arpa/inet.h>

#include "foundation/AsciiText.h"
#include "parser/ParseError.h"

static char const kSourceFile[] = "HeadRules";

namespace postwire::internal {

namespace {

using Policy = HTTPPolicyException;

constexpr std::size_t kMaxBoundary = 70;  // RFC 2046 section 5.1.1

[[noreturn]] void refuse(Policy::PolicyErrorCode code, int line) {
    internal::refuse(code, QORFileLocation(kSourceFile, line));
}

// Takes a text off its front, piece by piece.
class Cutter {
public:
    explicit Cutter(std::string_view text) : m_left(text) {}

    bool atEnd() const { return m_left.empty(); }
    template <class Belongs>
    bool takeIf(Belongs const& belongs) {
        if (atEnd() || !belongs(m_left.front())) return false;
        m_left.remove_prefix(1);
        return true;
    }
    bool take(char wanted) {
        return takeIf([wanted](char c) { return c == wanted; });
    }
    template <class Belongs>
    std::string_view takeWhile(Belongs const& belongs) {
        char const* at = m_left.data();
        char const* const end = at + m_left.size();
        while (at != end && belongs(*at)) ++at;
        return takeFront(static_cast<std::size_t>(at - m_left.data()));
    }
    std::string_view takeUntil(char c) {
        return takeFront(std::min(m_left.find(c), m_left.size()));
    }

    // The inside of a text between quotes, each "\\" before a character left in it, or one without
    // quotes. False for one that does not end well.
    bool takeValue(std::string_view& value) {
        if (!take('"')) {
            value = takeWhile([](char c) { return c != ';' && c != '"' && !isBlank(c); });
        } else {
            std::size_t quote = m_left.find('"');
            if (std::size_t at = m_left.find('\\'); at < quote) {
                while (at < m_left.size() && m_left[at] != '"') at += m_left[at] == '\\' ? 2U : 1U;
                quote = at;
            }
            if (quote >= m_left.size()) return false;
            value = takeFront(quote);
            take('"');
        }
        takeWhile([](char c) { return isBlank(c); });
        return atEnd() || m_left.front() == ';';
    }

private:
    std::string_view takeFront(std::size_t n) {
        std::string_view const taken(m_left.data(), n);
        m_left.remove_prefix(n);
        return taken;
    }

    std::string_view m_left;
};

// Whether HTTPHeader, to which a ";" between quotes ends an attribute, finds another boundary in
// this text between quotes.
bool hidesBoundary(std::string_view quoted) {
    for (std::size_t at; (at = quoted.find(';')) != std::string_view::npos;) {
        quoted.remove_prefix(at + 1);
        std::string_view const name = withoutSpaces(quoted.substr(0, quoted.find('=')));
        if (equalsInAnyCase(strippedOf(name, [](char c) { return c == '"' || isBlank(c); }),
                            "boundary"))
            return true;
    }
    return false;
}

// The characters of a reg-name, RFC 3986 section 3.2.2, but for "%", which two digits follow.
constexpr std::array<bool, 256> kNameCharacter = [] {
    std::array<bool, 256> table{};
    for (unsigned c = 0; c < 128; ++c) table[c] = isLetterOrDigit(static_cast<char>(c));
    for (char const c : std::string_view("-._~!$&'()*+,;="))
        table[static_cast<unsigned char>(c)] = true;
    return table;
}();

bool isNameCharacter(char c) { return kNameCharacter[static_cast<unsigned char>(c)]; }

// What stands between "[" and "]".
bool isAddress(std::string_view text) {
    Cutter cutter(text);
    if (cutter.takeIf([](char c) { return asciiLowerCase(c) == 'v'; })) {
        bool const hasVersion = !cutter.takeWhile(isHexDigit).empty() && cutter.take('.');
        auto const isOfAddress = [](char c) { return c == ':' || isNameCharacter(c); };
        return hasVersion && !cutter.takeWhile(isOfAddress).empty() && cutter.atEnd();
    }
    in6_addr address;
    return inet_pton(AF_INET6, std::string(text).c_str(), &address) == 1;
}

// uri-host [":" port], RFC 9110 section 7.2.
bool isHost(std::string_view text) {
    Cutter cutter(text);
    if (cutter.take('[')) {
        if (!isAddress(cutter.takeUntil(']')) || !cutter.take(']')) return false;
    } else {
        for (;;) {
            cutter.takeWhile([](char c) { return isNameCharacter(c); });
            if (!cutter.take('%')) break;
            if (!cutter.takeIf(isHexDigit) || !cutter.takeIf(isHexDigit)) return false;
        }
    }
    if (cutter.take(':')) cutter.takeWhile([](char c) { return isDigit(c); });
    return cutter.atEnd();
}

}  // namespace

void judgeTarget(std::string_view target) {
    if (target.front() != '/' && !beginsInAnyCase(target, "http://") &&
        !beginsInAnyCase(target, "https://"))
        refuse(Policy::HTTP_ERR_TARGET, __LINE__);
}

int minorVersionOf(std::string_view word) {
    return word == "HTTP/1.1" || word == "HTTP/1.0" ? word.back() - '0' : -1;
}

int judgeStatusLine(std::string_view text) {
    Cutter cutter(text);
    if (minorVersionOf(cutter.takeUntil(' ')) < 0)
        raise(HTTPException::HTTP_ERR_VERSION, kValidateResponseLine, __LINE__);
    bool const startsWell = cutter.take(' ');
    std::string_view const digits = cutter.takeWhile([](char c) { return isDigit(c); });
    if (!startsWell || digits.size() != 3 || (!cutter.atEnd() && !cutter.take(' ')))
        refuse(Policy::HTTP_ERR_START_LINE, __LINE__);
    if (std::any_of(text.begin(), text.end(), isControlCharacter))
        refuse(Policy::HTTP_ERR_CONTROL_CHARACTER, __LINE__);
    return (digits[0] - '0') * 100 + (digits[1] - '0') * 10 + digits[2] - '0';
}

void judgeFieldLine(char const* line, char const* behindName, char const* end) {
    if (*behindName != ':' || behindName == line) {
        if (isBlank(*line)) refuse(Policy::HTTP_ERR_FOLDED_LINE, __LINE__);
        char const* const colon = std::find_if_not(behindName, end, isBlank);
        bool const hasSpace = *colon == ':' && colon != behindName && behindName != line;
        refuse(hasSpace ? Policy::HTTP_ERR_SPACE_BEFORE_COLON : Policy::HTTP_ERR_HEADER_LINE,
               __LINE__);
    }
    if (std::any_of(behindName, end, isControlCharacter))
        refuse(Policy::HTTP_ERR_CONTROL_CHARACTER, __LINE__);
}

// RFC 9112 section 6.3, item 5, but for a list of equal numbers in one line.
int HeadRules::readContentLength(std::string_view text) {
    long long length = 0;
    for (char const c : withoutBlanks(text)) {
        if (!isDigit(c)) refuse(Policy::HTTP_ERR_LENGTH_NOT_DIGITS, __LINE__);
        length = std::min(length * 10 + (c - '0'), INT_MAX + 1LL);
    }
    if (m_hasLength && length != m_length) refuse(Policy::HTTP_ERR_LENGTH_REPEATED, __LINE__);
    // Beyond, numbers are not told apart.
    if (length > INT_MAX) refuse(Policy::HTTP_ERR_BODY_TOO_LARGE, __LINE__);
    m_hasLength = true;
    return m_length = static_cast<int>(length);
}

void HeadRules::judgeTransferEncoding(std::string_view text) {
    forEachItem(text, [this](std::string_view coding) {
        if (!equalsInAnyCase(coding, "chunked")) refuse(Policy::HTTP_ERR_UNKNOWN_CODING, __LINE__);
        if (m_hasCoding) refuse(Policy::HTTP_ERR_CODING_REPEATED, __LINE__);
        m_hasCoding = true;
    });
}

void HeadRules::judgeContentType() {
    if (m_hasType) refuse(Policy::HTTP_ERR_CONTENT_TYPE_REPEATED, __LINE__);
    m_hasType = true;
}

void HeadRules::judgeHost(std::string_view text) {
    if (m_hasHost) refuse(Policy::HTTP_ERR_HOST_REPEATED, __LINE__);
    if (!isHost(withoutBlanks(text))) refuse(Policy::HTTP_ERR_BAD_HOST, __LINE__);
    m_hasHost = true;
}

// Stacks write boundaries without quotes that hold ':', '=' and other characters that are no
// token's: white space, quotes and ';' alone end one. What is malformed in front of a boundary or
// behind it may hide another one from other readers, and so may what HTTPHeader and they take apart
// differently: a "\" or ";" between quotes.
std::string_view HeadRules::readBoundary(std::string_view text) {
    Cutter cutter(text);
    cutter.takeUntil(';');
    std::string_view boundary;
    bool isFound = false;
    for (;;) {
        cutter.takeWhile([](char c) { return c == ';' || isBlank(c); });
        if (cutter.atEnd()) return boundary;
        std::string_view const name = cutter.takeWhile([](char c) { return isTokenCharacter(c); });
        std::string_view value;
        if (name.empty() || !cutter.take('=') || !cutter.takeValue(value) || hidesBoundary(value))
            refuse(Policy::HTTP_ERR_BAD_BOUNDARY, __LINE__);
        if (!equalsInAnyCase(name, "boundary")) continue;
        bool const isPlain = value.find('\\') == value.npos && value.find(';') == value.npos;
        if (isFound || !isPlain || value.size() > kMaxBoundary ||
            withoutSpaces(value).size() != value.size())
            refuse(Policy::HTTP_ERR_BAD_BOUNDARY, __LINE__);
        boundary = value;
        isFound = true;
    }
}

void HeadRules::judgeHead(bool isHttp, int minorVersion, bool isRequest) const {
    if (m_hasCoding && m_hasLength) refuse(Policy::HTTP_ERR_LENGTH_AND_CODING, __LINE__);
    if (!isHttp) return;
    if (m_hasCoding && minorVersion == 0) refuse(Policy::HTTP_ERR_CODING_IN_HTTP_1_0, __LINE__);
    if (isRequest && !m_hasHost && minorVersion > 0) refuse(Policy::HTTP_ERR_NO_HOST, __LINE__);
}

}  // namespace postwire::internal
