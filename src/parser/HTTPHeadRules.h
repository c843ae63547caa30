#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class QORByteBuffer;

// The strict reading of a head: what RFC 9112 sections 3 to 6 and RFC 9110 ask of its lines, judged
// on them as they came, before any white space is cut off. A broken rule raises
// HTTPPolicyException.
//
// Rule: one head at a time; startHead forgets the one before.
class HTTPHeadRules {
public:
    // A part's head knows no version, and its lines may be continued.
    void startHead(bool isPart);

    // Words of visible characters, with single blanks between them.
    void judgeRequestLine(QORByteBuffer const& line) const;

    // Behind the version, which is that long: one blank, three digits, and mostly a blank and a
    // reason phrase. Gives the number.
    int judgeStatusLine(QORByteBuffer const& line, std::size_t version) const;

    // The place of the colon of a field line. The name before it is a token, and in lower case
    // then.
    char* judgeFieldLine(QORByteBuffer& line) const;

    // The values of framing fields, by the text behind the colon. An empty one is left to others.
    void judgeContentLength(std::string_view text);
    void judgeTransferEncoding(std::string_view text);
    void judgeContentType();
    void judgeHost();

    // The attribute "boundary" of a multipart type, its name in any letter case, RFC 9110 section
    // 5.6.6; empty where there is none. Good until the next call.
    std::string const& boundaryOf(std::string_view text);

    // The fields together, once the head has ended.
    void endHead(int minorVersion) const;

private:
    bool m_isPart = false;
    bool m_hasLength = false;
    bool m_hasCoding = false;
    bool m_hasType = false;
    bool m_hasHost = false;
    long long m_length = 0;
    std::string m_boundary;
};
