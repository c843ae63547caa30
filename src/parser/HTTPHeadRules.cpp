#include "parser/HTTPHeadRules.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#include "foundation/QORByteBuffer.h"

#include "foundation/AsciiText.h"
#include "parser/HTTPParseError.h"

static char const kSourceFile[] = "HTTPParser";

namespace {

using Policy = HTTPPolicyException;

[[noreturn]] void raise(Policy::PolicyErrorCode code, int line) {
    parseError::raise(code, QORFileLocation(kSourceFile, line));
}

constexpr std::size_t kMaxBoundary = 70;  // RFC 2046 section 5.1.1

// False, and nothing done, for a character that is no token's.
bool lowerCaseIfToken(char& c) {
    char const lower = tokenLowerCase(c);
    if (lower != 0) c = lower;
    return lower != 0;
}

// Gives the end of the token at the front. Four steps a round, because every name comes here.
char* lowerCaseToken(char* text) {
    for (;; text += 4) {
        if (!lowerCaseIfToken(text[0])) return text;
        if (!lowerCaseIfToken(text[1])) return text + 1;
        if (!lowerCaseIfToken(text[2])) return text + 2;
        if (!lowerCaseIfToken(text[3])) return text + 3;
    }
}

// The line's end has been cut off, so that a CR that is left stands for itself: some readers end a
// line there, and some end a text at a zero byte.
void requireText(QORByteBuffer const& line) {
    char const* const text = line.str();
    if (::strchrnul(text, '\r') != text + line.pcount())
        raise(Policy::HTTP_ERR_CONTROL_CHARACTER, __LINE__);
}

// From the blank to '~'. Eight at a time: the sums set a byte's highest bit where it is not, and a
// carry can set more of them only next to one that is set.
bool isPrintable(std::string_view text) {
    constexpr std::uint64_t kEach = 0x0101010101010101U;
    while (text.size() >= 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data(), 8);
        if (((word - kEach * ' ') | (word + kEach) | word) & kEach * 0x80) return false;
        text.remove_prefix(8);
    }
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < '\x7f'; });
}

// Takes a text off its front, piece by piece.
class Cutter {
public:
    explicit Cutter(std::string_view text) : m_left(text) {}

    bool atEnd() const { return m_left.empty(); }
    bool take(char c) {
        if (atEnd() || m_left.front() != c) return false;
        m_left.remove_prefix(1);
        return true;
    }
    template <class Belongs>
    std::string_view takeWhile(Belongs const& belongs) {
        auto const end = std::find_if_not(m_left.begin(), m_left.end(), belongs);
        std::string_view const taken =
            m_left.substr(0, static_cast<std::size_t>(end - m_left.begin()));
        m_left.remove_prefix(taken.size());
        return taken;
    }

    // A text between quotes, a "\" before a character dropped, or one without quotes. False for one
    // that does not end well.
    bool takeValue(std::string& value) {
        if (!take('"')) {
            value = takeWhile([](char c) { return c != ';' && c != '"' && !isBlank(c); });
        } else {
            while (!take('"')) {
                take('\\');
                if (atEnd()) return false;
                value += m_left.front();
                m_left.remove_prefix(1);
            }
        }
        takeWhile(isBlank);
        return atEnd() || m_left.front() == ';';
    }

private:
    std::string_view m_left;
};

}  // namespace

void HTTPHeadRules::startHead(bool isPart) {
    m_isPart = isPart;
    m_hasLength = m_hasCoding = m_hasType = m_hasHost = false;
}

// Too few words, and wrong ones, are told as such where they are taken. RFC 9112 section 3 allows a
// recipient to take more than a single blank between them, and warns of what comes of it.
void HTTPHeadRules::judgeRequestLine(QORByteBuffer const& line) const {
    std::string_view const text(line.str(), line.pcount());
    if (!isPrintable(text)) {
        requireText(line);
        raise(Policy::HTTP_ERR_START_LINE, __LINE__);
    }
    std::size_t const first = text.find(' ');
    std::size_t const second = first == text.npos ? text.npos : text.find(' ', first + 1);
    bool const isThird = second != text.npos && text.find(' ', second + 1) != text.npos;
    if (first == 0 || second == first + 1 || isThird || text.back() == ' ')
        raise(Policy::HTTP_ERR_START_LINE, __LINE__);
}

int HTTPHeadRules::judgeStatusLine(QORByteBuffer const& line, std::size_t version) const {
    requireText(line);
    Cutter cutter(std::string_view(line.str(), line.pcount()).substr(version));
    bool const startsWell = cutter.take(' ');
    std::string_view const digits = cutter.takeWhile(isDigit);
    if (!startsWell || digits.size() != 3 || (!cutter.atEnd() && !cutter.take(' ')))
        raise(Policy::HTTP_ERR_START_LINE, __LINE__);
    return (digits[0] - '0') * 100 + (digits[1] - '0') * 10 + digits[2] - '0';
}

char* HTTPHeadRules::judgeFieldLine(QORByteBuffer& line) const {
    requireText(line);
    char* const name = line.str();
    char* end = lowerCaseToken(name);
    if (*end == ':' && end != name) return end;
    if (isBlank(*name)) raise(Policy::HTTP_ERR_FOLDED_LINE, __LINE__);
    while (isBlank(*end)) ++end;
    raise(*end == ':' && end != name && isBlank(end[-1]) ? Policy::HTTP_ERR_SPACE_BEFORE_COLON
                                                         : Policy::HTTP_ERR_HEADER_LINE,
          __LINE__);
}

// RFC 9112 section 6.3, item 5, but for a list of equal numbers in one line.
void HTTPHeadRules::judgeContentLength(std::string_view text) {
    std::string_view const digits = withoutBlanks(text);
    if (digits.empty()) return;
    constexpr long long kTooLarge = INT_MAX + 1LL;
    long long length = 0;
    for (char const c : digits) {
        if (!isDigit(c)) raise(Policy::HTTP_ERR_LENGTH_NOT_DIGITS, __LINE__);
        length = std::min(length * 10 + (c - '0'), kTooLarge);
    }
    if (m_hasLength && length != m_length) raise(Policy::HTTP_ERR_LENGTH_REPEATED, __LINE__);
    // Beyond, numbers are not told apart.
    if (length == kTooLarge) raise(Policy::HTTP_ERR_BODY_TOO_LARGE, __LINE__);
    m_length = length;
    m_hasLength = true;
}

void HTTPHeadRules::judgeTransferEncoding(std::string_view text) {
    if (withoutBlanks(text).empty()) return;
    for (std::string_view rest = text;;) {
        std::size_t const comma = rest.find(',');
        if (!equalsInAnyCase(withoutBlanks(rest.substr(0, comma)), "chunked"))
            raise(Policy::HTTP_ERR_UNKNOWN_CODING, __LINE__);
        if (m_hasCoding) raise(Policy::HTTP_ERR_CODING_REPEATED, __LINE__);
        m_hasCoding = true;
        if (comma == std::string_view::npos) return;
        rest.remove_prefix(comma + 1);
    }
}

void HTTPHeadRules::judgeContentType() {
    if (m_hasType) raise(Policy::HTTP_ERR_CONTENT_TYPE_REPEATED, __LINE__);
    m_hasType = true;
}

void HTTPHeadRules::judgeHost() {
    if (m_hasHost) raise(Policy::HTTP_ERR_HOST_REPEATED, __LINE__);
    m_hasHost = true;
}

// Stacks write boundaries without quotes that hold ':', '=' and other characters that are no
// token's: white space, quotes and ';' alone end one. What is malformed in front of a boundary or
// behind it may hide another one from other readers.
std::string const& HTTPHeadRules::boundaryOf(std::string_view text) {
    Cutter cutter(text);
    cutter.takeWhile([](char c) { return c != ';'; });
    auto const isSeparator = [](char c) { return c == ';' || isBlank(c); };
    bool found = false;
    m_boundary.clear();
    for (;;) {
        cutter.takeWhile(isSeparator);
        if (cutter.atEnd()) return m_boundary;
        std::string_view const name = cutter.takeWhile(isTokenCharacter);
        std::string value;
        if (name.empty() || !cutter.take('=') || !cutter.takeValue(value))
            raise(Policy::HTTP_ERR_BAD_BOUNDARY, __LINE__);
        if (!equalsInAnyCase(name, "boundary")) continue;
        if (found || value.size() > kMaxBoundary) raise(Policy::HTTP_ERR_BAD_BOUNDARY, __LINE__);
        m_boundary.swap(value);
        found = true;
    }
}

void HTTPHeadRules::endHead(int minorVersion) const {
    if (m_hasCoding && m_hasLength) raise(Policy::HTTP_ERR_LENGTH_AND_CODING, __LINE__);
    if (m_hasCoding && !m_isPart && minorVersion == 0)
        raise(Policy::HTTP_ERR_CODING_IN_HTTP_1_0, __LINE__);
}
