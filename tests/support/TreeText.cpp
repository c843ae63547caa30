#include "support/TreeText.h"

#include <algorithm>
#include <cstdint>
#include <map>

#include "foundation/QORByteBuffer.h"

#include "message/HTTPMessage.h"

namespace {

std::uint32_t crc32(std::string const& bytes) {
    std::uint32_t crc = ~std::uint32_t{0};
    for (char const c : bytes) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (crc & 1 ? 0xEDB88320U : 0U);
    }
    return ~crc;
}

std::string hex(std::uint32_t number, int digits) {
    std::string text;
    while (digits > 0) text += "0123456789abcdef"[number >> 4 * --digits & 15];
    return text;
}

// dump alone knows all headers, but changes the framing headers, which are therefore asked first.
std::multimap<std::string, std::string> headersOf(HTTPMessage& message) {
    std::multimap<std::string, std::string> headers;
    for (char const* const name : {"content-length", "transfer-encoding"})
        if (HTTPHeader* const header = message.getHeader(name)) {
            QORByteBuffer value(64, 64);
            header->dump(value);
            headers.emplace(name, value.str());
        }
    QORByteBuffer dumped(256, 256);
    message.dump(dumped, 0);
    std::string const block(dumped.str(), dumped.pcount());
    std::size_t end;
    for (std::size_t at = 0; (end = block.find("\r\n", at)) != at; at = end + 2) {
        std::size_t const colon = block.find(": ", at);
        std::string name = block.substr(at, colon - at);
        for (char& c : name)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (name != "content-length" && name != "transfer-encoding")
            headers.emplace(name, block.substr(colon + 2, end - colon - 2));
    }
    return headers;
}

}  // namespace

std::string printable(std::string const& bytes) {
    std::string text;
    for (char const c : bytes)
        text += c >= ' ' && c <= '~' ? std::string(1, c)
                                     : "\\x" + hex(static_cast<unsigned char>(c), 2);
    return text;
}

std::string bodyText(std::string const& bytes) {
    return std::to_string(bytes.size()) + ' ' + hex(crc32(bytes), 8) + ' ' +
           printable(bytes.substr(0, 16));
}

std::string treeText(HTTPMessage& message, int indent) {
    std::string const pad(static_cast<std::size_t>(indent), ' ');
    std::string body;
    for (int i = 0; i < message.num_parts(); ++i)
        body += pad + "part\n" + treeText(*message.getPart(i), indent + 2);
    if (message.num_parts() == 0) {
        auto const size = static_cast<std::size_t>(message.contentSize());
        std::string const bytes(size ? message.contentBytes() : "", size);
        body = pad + "body " + bodyText(bytes) + '\n';
    }
    std::string text;
    for (auto const& [name, value] : headersOf(message))
        text += pad + printable(name) + ": " + printable(value) + '\n';
    return text + body;
}
