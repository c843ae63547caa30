#pragma once

#include <string>

#include "foundation/ZULBufferedInputStream.h"

#include "parser/HTTPHeadRules.h"
#include "parser/HTTPParser.h"
#include "parser/HTTPReadPolicy.h"

class FramedStream;

// The steps of a parse under a policy, in place of the parser's own. Lines are read here, so that
// they are judged as they came and limits hold before memory is taken; each body is read through
// the stream that its framing asks for.
//
// Ownership: belongs to the parser, and works on its state and its handler.
class HTTPPolicyParser {
public:
    HTTPPolicyParser(HTTPParser& parser, HTTPReadPolicy const& policy);

    // False for a policy that leaves all as it is.
    static bool changesReading(HTTPReadPolicy const& policy);

    // Whether one of the steps below is under way, so that this may not be replaced.
    bool isReading() const { return m_steps > 0; }

    void startMessage();
    void readRequestLine(ZULBufferedInputStream& is);
    void readStatusLine(ZULBufferedInputStream& is);
    void readHead(ZULBufferedInputStream& is);
    void readBody(ZULBufferedInputStream& is);
    void readPart(ZULBufferedInputStream& is);

    // Values of the current head, by the text behind the colon: judged by strict framing alone.
    void judgeContentType();
    void judgeContentLength(char const* text);
    void judgeTransferEncoding(char const* text);
    void judgeHost();

    // The boundary that a multipart type names, as strict framing or as the default looks for it;
    // null or empty where there is none.
    char const* boundaryOf(HTTPHeader& type, char const* text);

private:
    using Code = HTTPPolicyException::PolicyErrorCode;
    enum class Framing { None, Length, Chunks, Boundary, Rest };

    struct Step {
        explicit Step(int& count) : steps(count) { ++steps; }
        Step(Step const&) = delete;
        Step& operator=(Step const&) = delete;
        ~Step() { --steps; }
        int& steps;
    };

    bool readLine(ZULBufferedInputStream& is, Code tooLong);
    bool appendLine(ZULBufferedInputStream& is, Code tooLong);
    void requireRoom(char const* bytes, unsigned int more, Code tooLong) const;
    void takeOfHead(int bytes) {
        if ((m_headLeft -= bytes) < 0) raiseHeadTooLarge();
    }
    [[noreturn]] void raiseHeadTooLarge() const;
    bool isEmptyLine();
    void readStartLine(ZULBufferedInputStream& is, char const* method);
    int judgeStatusLine();
    void skipInterimHead(ZULBufferedInputStream& is);
    void readHeadLine(ZULBufferedInputStream& is);
    void readStrictHead(ZULBufferedInputStream& is);
    void joinContinuations(ZULBufferedInputStream& is);

    Framing framing() const;
    std::string const* enclosingBoundary() const;
    long long& allowance();
    void readNone(ZULBufferedInputStream& is);
    void readLength(ZULBufferedInputStream& is, int length);
    void readRest(ZULBufferedInputStream& is);
    void deliver(FramedStream& body, int length = -1);
    void readParts(ZULBufferedInputStream& is);
    bool findDelimiter(ZULBufferedInputStream& is);
    bool findDelimiterLine(ZULBufferedInputStream& is, std::string const& separator);
    void requireDelimiter(ZULBufferedInputStream& is, std::string const& boundary,
                          bool atLineStart);
    int depth() const { return m_parser.m_idepth; }

    HTTPParser& m_parser;
    int m_steps;  // under way, one within the other
    HTTPReadPolicy const m_policy;
    unsigned int const m_maxLine;
    HTTPHeadRules m_rules;
    long long m_headLeft;   // of the head being read, start line included, or of lines of a body
    Code m_headTooLarge;    // the error where that is not enough
    long long m_bodyLeft;   // for the bodies of this message still to come
    long long m_uncounted;  // for the streams around parts, whose bytes are counted within
    int m_partsLeft;
    int m_status;    // of a response, by strict framing
    bool m_bounded;  // the stream that is read ends with the body of a level
};
