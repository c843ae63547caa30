#include <map>

#include "EveryReadSize.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

std::string trimmed(std::string_view text) {
    constexpr char kWhite[] = " \t\n\v\f\r";
    auto const strip = [&](std::string_view s) {
        std::size_t const first = s.find_first_not_of(kWhite);
        return first == s.npos ? s.substr(0, 0)
                               : s.substr(first, s.find_last_not_of(kWhite) - first + 1);
    };
    text = strip(text);
    bool const quoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return std::string(quoted ? strip(text.substr(1, text.size() - 2)) : text);
}

// The written form of a header value, found by cutting the text at every ';' first.
std::string expectedDump(std::string const& text) {
    std::size_t at = std::min(text.find(';'), text.size());
    std::string const quote = text[0] == '"' ? "\"" : "";
    std::string dump = quote + trimmed(std::string_view(text).substr(0, at));
    std::map<std::string, std::string> attributes;
    while (at < text.size()) {
        std::size_t const end = std::min(text.find(';', at + 1), text.size());
        std::string_view const segment = std::string_view(text).substr(at + 1, end - at - 1);
        std::size_t const equals = segment.find('=');
        if (equals != segment.npos)
            attributes[trimmed(segment.substr(0, equals))] = trimmed(segment.substr(equals + 1));
        at = end;
    }
    for (auto const& [name, value] : attributes) dump.append("; " + name + "=" + value);
    return dump + quote;
}

std::string dumped(HTTPHeader& header) {
    QORByteBuffer text(16, 16);
    header.dump(text);
    return text.str();
}

// The same value as the header of a request that arrives in pieces.
std::string readFromRequest(std::string const& value, int step) {
    std::string const wire = "POST / HTTP/1.1\r\nX:" + value + "\r\nContent-Length: 0\r\n\r\n";
    Pieces pieces(wire, step);
    ZULBufferedInputStream buffered(pieces, 16);
    HTTPMessageReader reader(buffered);
    HTTPMessage message;
    std::string uri;
    reader.getRequest(&message, &uri);
    return dumped(*message.getHeader("x"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const text(std::string(asText(data, size)).c_str());
    HTTPHeader header;
    header.parse(text.c_str());
    require(dumped(header), expectedDump(text), "a parsed value");
    HTTPHeader copy(header), assigned("x");
    assigned = copy;
    require(dumped(assigned), dumped(header), "a copied value");
    if (text.find('\n') != text.npos) return 0;
    for (int const step : kReadSizes) {
        require(readFromRequest(text, step), expectedDump(text), "a value read");
    }
    return 0;
}
