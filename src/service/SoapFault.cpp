#include "service/SoapFault.h"

#include <array>
#include <optional>

#include "foundation/AsciiText.h"

namespace postwire {

namespace {

// Of what XML 1.0 can hold.
std::string escaped(std::string_view text) {
    std::string out;
    for (char const c : text) {
        bool const isForbidden =
            static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\n' && c != '\r';
        if (isForbidden)
            out += '?';
        else if (c == '&')
            out += "&amp;";
        else if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '\r')
            out += "&#13;";
        else
            out += c;
    }
    return out;
}

// The tags of a document, one after the other; all else is passed over.
class Tags {
public:
    explicit Tags(std::string_view text) : m_rest(text) {}

    struct Tag {
        std::string_view name;  // without its prefix
        bool opens;
        bool closes;  // an empty element does both
    };

    std::optional<Tag> next() {
        for (;;) {
            std::size_t const at = m_rest.find('<');
            if (at == std::string_view::npos) return {};
            m_rest.remove_prefix(at);
            if (m_rest.substr(0, 4) == "<!--") {
                skipTo("-->", 4);
            } else if (m_rest.substr(0, 9) == "<![CDATA[") {
                skipTo("]]>", 9);
            } else if (m_rest.substr(0, 2) == "<?") {
                skipTo("?>", 2);
            } else if (m_rest.substr(0, 2) == "<!") {
                return {};  // SOAP forbids document types
            } else {
                return tag();
            }
        }
    }

private:
    void skipTo(std::string_view end, std::size_t from) {
        std::size_t const at = m_rest.find(end, from);
        m_rest.remove_prefix(at == std::string_view::npos ? m_rest.size() : at + end.size());
    }

    // A ">" may stand in the value of an attribute.
    std::optional<Tag> tag() {
        std::size_t end = 1;
        for (char quote = 0; end < m_rest.size() && (quote != 0 || m_rest[end] != '>'); ++end) {
            char const c = m_rest[end];
            if (quote != 0)
                quote = c == quote ? '\0' : quote;
            else if (c == '"' || c == '\'')
                quote = c;
        }
        if (end >= m_rest.size()) return {};
        std::string_view inside = m_rest.substr(1, end - 1);
        m_rest.remove_prefix(end + 1);
        bool const isEnd = !inside.empty() && inside.front() == '/';
        bool const isEmpty = !inside.empty() && inside.back() == '/';
        if (isEnd) inside.remove_prefix(1);
        std::string_view const name = inside.substr(0, inside.find_first_of(" \t\r\n/"));
        return Tag{name.substr(name.rfind(':') + 1), !isEnd, isEnd || isEmpty};
    }

    std::string_view m_rest;
};

constexpr std::array<char const*, 4> kCodes11 = {"Client", "Server", "VersionMismatch",
                                                 "MustUnderstand"};
constexpr std::array<char const*, 4> kCodes12 = {"Sender", "Receiver", "VersionMismatch",
                                                 "MustUnderstand"};

}  // namespace

std::string soapFault(SoapVersion version, SoapFaultCode code, std::string_view text) {
    auto const index = static_cast<std::size_t>(code);
    bool const is12 = version == SoapVersion::soap12;
    std::string const space = is12 ? "http://www.w3.org/2003/05/soap-envelope"
                                   : "http://schemas.xmlsoap.org/soap/envelope/";
    std::string fault;
    if (is12)
        fault = std::string("<s:Code><s:Value>s:") + kCodes12[index] +
                "</s:Value></s:Code><s:Reason><s:Text xml:lang=\"en\">" + escaped(text) +
                "</s:Text></s:Reason>";
    else
        fault = std::string("<faultcode>s:") + kCodes11[index] + "</faultcode><faultstring>" +
                escaped(text) + "</faultstring>";
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<s:Envelope xmlns:s=\"" + space +
           "\"><s:Body><s:Fault>" + fault + "</s:Fault></s:Body></s:Envelope>\n";
}

bool isSoapFault(std::string_view envelope) {
    Tags tags(envelope);
    bool isInBody = false;
    for (int depth = 0; auto const tag = tags.next();) {
        bool const isLooked = depth == 0 || (depth == 2 && isInBody);
        if (tag->opens && isLooked && tag->name == "Fault") return true;
        if (tag->opens && isLooked && (depth == 2 || tag->name != "Envelope")) return false;
        if (tag->opens && depth == 1) isInBody = tag->name == "Body";
        if (tag->opens) ++depth;
        if (tag->closes && --depth <= (isInBody ? 1 : 0)) return false;
    }
    return false;
}

}  // namespace postwire
