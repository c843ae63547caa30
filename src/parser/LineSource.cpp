#include "parser/LineSource.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "foundation/AsciiText.h"

static char const kSourceFile[] = "LineSource";

namespace postwire::internal {

namespace {

bool blankIsNext(ZULBufferedInputStream& is) {
    int have = 0;
    char const* const next = is.peek(have);
    return have > 0 && isBlank(*next);
}

}  // namespace

LineSource::LineSource(ZULBufferedInputStream& is, QORByteBuffer& line, Rules rules, int maxLine,
                       Budget& bytes, Budget::Code tooLong)
    : m_is(is),
      m_line(line),
      m_rules(rules),
      m_maxLine(maxLine > 0 ? static_cast<unsigned int>(maxLine) : UINT_MAX),
      m_bytes(bytes),
      m_tooLong(tooLong) {}

bool LineSource::readLine() {
    m_line.reset();
    bool const byDefault = m_rules == Rules::Default;
    if (!byDefault && takeEmptyLine()) return true;
    if (byDefault ? m_is.readLine(m_line) == -1 : !appendLine()) return false;
    if (m_rules == Rules::Mime) return m_line.pcount() == 0 || joinContinuations();
    if (m_rules != Rules::Http) m_line.trim();
    return true;
}

// The line that ends a head, to the letter and whole in the read-ahead.
bool LineSource::takeEmptyLine() {
    int have = 0;
    char const* const next = m_is.peek(have);
    if (have < 2 || next[0] != '\r' || next[1] != '\n' || !m_bytes.takeIfLeft(2)) return false;
    m_is.skip(2);
    return true;
}

bool LineSource::appendLine() {
    unsigned int const from = m_line.pcount();
    for (;;) {
        int have = 0;
        char const* const bytes = m_is.peek(have);
        if (have == 0) return m_line.pcount() > 0 && m_rules == Rules::Limits;
        void const* const lf = std::memchr(bytes, '\n', static_cast<unsigned int>(have));
        int const piece = lf ? static_cast<int>(static_cast<char const*>(lf) - bytes) : have;
        // Nearly always a whole line with its CRLF: then no byte of that is copied.
        bool endsInCrLf = lf && piece > 0 && bytes[piece - 1] == '\r';
        auto const more = static_cast<unsigned int>(piece);
        if (m_line.pcount() + more > m_maxLine) requireRoom(bytes, more);
        int const taken = lf ? piece + 1 : piece;
        m_bytes.take(taken);
        m_line.appendChars(bytes, endsInCrLf ? more - 1 : more);
        m_is.skip(taken);
        if (!lf) continue;
        unsigned int const length = m_line.pcount();
        if (piece == 0 && length > from && m_line.str()[length - 1] == '\r') {
            m_line.setLength(length - 1);
            endsInCrLf = true;
        }
        judgeLine(from, endsInCrLf);
        return true;
    }
}

// The line's end has been cut off, so that a CR that is left stands for itself: some readers end a
// line there, and some end a text at a zero byte. Whether LF alone ends one they do not agree on
// either.
void LineSource::judgeLine(unsigned int from, bool endsInCrLf) const {
    if (m_rules == Rules::Limits) return;
    char const* const text = m_line.str() + from;
    if (::strchrnul(text, '\r') != m_line.str() + m_line.pcount())
        refuse(HTTPPolicyException::HTTP_ERR_CONTROL_CHARACTER, {kSourceFile, __LINE__});
    if (m_rules == Rules::Http && !endsInCrLf)
        refuse(HTTPPolicyException::HTTP_ERR_BARE_LF, {kSourceFile, __LINE__});
}

// Above the limit. A CR at the end may belong to the line's end, and does not count then. Of two
// limits the one that the bytes meet first is told, however many of them came at once.
void LineSource::requireRoom(char const* bytes, unsigned int more) const {
    unsigned int const before = m_line.pcount();
    bool const lastIsCr = (more > 0 ? bytes[more - 1] : m_line.str()[before - 1]) == '\r';
    if (before + more == m_maxLine + 1 && lastIsCr) return;
    bool const crIsFirst = before > m_maxLine || bytes[m_maxLine - before] == '\r';
    m_bytes.require(static_cast<long long>(m_maxLine) - before + (crIsFirst ? 1 : 0));
    refuse(m_tooLong, {kSourceFile, __LINE__});
}

void LineSource::peekName(std::string& name) const {
    int have = 0;
    char const* const begin = m_is.peek(have);
    name.assign(begin, std::find(begin, begin + have, ':'));
}

// Scanned and copied in one go. A longer line than there is room for here is none of these, nor is
// an empty one.
bool LineSource::readGoodField(HeaderLine& field) {
    int have = 0;
    char const* const begin = m_is.peek(have);
    if (have == 0 || *begin == '\r') return false;
    char const* const last = begin + std::min(have, kRoom);
    char* const name = m_field.data();
    std::size_t const nameSize = copyTokenInLowerCase(begin, last, name);
    char const* const colon = begin + nameSize;
    if (nameSize == 0 || colon == last || *colon != ':') return false;
    char const* const cr = colon + copyToControlCharacter(colon, last, name + nameSize);
    // A line of a part is whole where the byte behind it tells that it is not continued.
    bool const isPart = m_rules == Rules::Mime;
    bool const isWhole = begin + have - cr >= (isPart ? 3 : 2) && cr[0] == '\r' && cr[1] == '\n';
    if (!isWhole || (isPart && isBlank(cr[2]))) return false;
    auto const size = static_cast<unsigned int>(cr - begin);
    if (size > m_maxLine || !m_bytes.takeIfLeft(size + 2)) return false;
    m_is.skip(static_cast<int>(size + 2));
    name[nameSize] = name[size] = '\0';
    field = {name, nameSize, size - nameSize - 1};
    return true;
}

// RFC 9112 section 5.2 has no place for lines that continue one in the message's head; MIME, which
// parts come from, does: RFC 2046 section 5.1. One blank stands for the line's end and the white
// space around it. A line of white space alone continues nothing: some readers take it for the end
// of the head.
bool LineSource::joinContinuations() {
    while (blankIsNext(m_is)) {
        unsigned int length = m_line.pcount();
        while (length > 0 && isBlank(m_line.str()[length - 1])) --length;
        m_line.setLength(length);
        m_line << ' ';
        do {
            m_bytes.take(1);
            m_is.skip(1);
        } while (blankIsNext(m_is));
        if (!appendLine()) return false;
        if (m_line.pcount() == length + 1)
            refuse(HTTPPolicyException::HTTP_ERR_FOLDED_LINE, {kSourceFile, __LINE__});
    }
    return true;
}

}  // namespace postwire::internal
