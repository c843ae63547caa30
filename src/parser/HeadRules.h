#pragma once

#include <cstddef>
#include <string_view>

namespace postwire::internal {

// What RFC 9112 sections 3 to 6 and RFC 9110 ask of start lines and field lines, judged on them as
// they came, before any white space is cut off. A broken rule raises HTTPPolicyException.

// The forms of a target that POST can have, RFC 9112 section 3.2: with a path, or an absolute one.
void judgeTarget(std::string_view target);

// 0 or 1; -1 for a version that is not known.
int minorVersionOf(std::string_view word);

// A version, one blank, three digits, and mostly a blank and a reason phrase. Gives the number.
int judgeStatusLine(std::string_view line);

// A colon behind the token that the line begins with, and no control character. A zero byte follows
// the line.
void judgeFieldLine(char const* line, char const* behindName, char const* end);

// The fields that frame a message, of one head, by the texts behind their colons.
class HeadRules {
public:
    int readContentLength(std::string_view text);
    void judgeTransferEncoding(std::string_view text);
    void judgeContentType();
    void judgeHost(std::string_view text);

    // The attribute "boundary" of a multipart type, its name in any letter case, RFC 9110 section
    // 5.6.6; empty where there is none. HTTPHeader::getAttribute gives the same for that name.
    static std::string_view readBoundary(std::string_view text);

    // The fields together, once the head has ended. `isHttp`: it is the message's own, of this
    // minor version, not a part's.
    void judgeHead(bool isHttp, int minorVersion, bool isRequest) const;

private:
    bool m_hasLength = false;
    bool m_hasCoding = false;
    bool m_hasType = false;
    bool m_hasHost = false;
    int m_length = 0;
};

}  // namespace postwire::internal
