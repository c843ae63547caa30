#pragma once

#include <array>
#include <string>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"

#include "message/HeaderLines.h"
#include "parser/Budget.h"

namespace postwire::internal {

// Reads lines, of heads and of what stands between parts. Under a policy one above a limit costs no
// memory, and one that is read to the letter is judged as it came, before white space is cut off.
//
// Ownership: borrows the stream, the buffer that each line is left in, and the budget.
// Raises: HTTPPolicyException; what the stream raises passes through.
class LineSource {
public:
    enum class Rules {
        Default,  // the stream's own lines; white space at the ends of a line does not count
        Limits,   // the same lines within limits
        Mime,     // of a part's head, which may be continued: no zero byte and no CR within
        Http      // of the message's head: also, only CRLF ends one, as RFC 9112 section 2.2 allows
    };

    // `bytes`: of all lines, their ends included; `tooLong` is raised for one above maxLine.
    LineSource(ZULBufferedInputStream& is, QORByteBuffer& line, Rules rules, int maxLine,
               Budget& bytes, Budget::Code tooLong);

    // The next line, without its end, and with those that continue it. False where the input has
    // ended: before its first byte or, of a head that is read to the letter, within it.
    bool readLine();

    // The next line where it is a field line without a fault, whole in the read-ahead: that is
    // scanned once, and its name is a token in lower case then. It is good until the next one is
    // read. False for all others, and nothing is taken.
    bool readGoodField(HeaderLine& field);

    // The next line's name as far as it is in the read-ahead, in its own letter case.
    void peekName(std::string& name) const;

private:
    bool takeEmptyLine();
    bool appendLine();
    bool joinContinuations();
    void judgeLine(unsigned int from, bool endsInCrLf) const;
    void requireRoom(char const* bytes, unsigned int more) const;

    ZULBufferedInputStream& m_is;
    QORByteBuffer& m_line;
    Rules m_rules;
    unsigned int m_maxLine;
    Budget& m_bytes;
    Budget::Code m_tooLong;
    // A usual line has fewer than 100 bytes, one in a hundred more than this.
    static constexpr int kRoom = 512;
    std::array<char, kRoom + 1> m_field;
};

}  // namespace postwire::internal
