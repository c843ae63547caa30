#include "foundation/ZULChunkedInputStream.h"

#include "EveryReadSize.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

struct Decoded {
    std::string data;
    std::string error;  // empty: the body ended
    std::string rest;   // what stands behind a body that ended
};

// Decodes with reads of at most `request` bytes from pieces of at most `step`.
Decoded decode(std::string_view coded, int step, int request) {
    Pieces wire(coded, step);
    ZULBufferedInputStream buffered(wire, 32);
    ZULChunkedInputStream decoder(buffered);
    QORByteBuffer data(16, 16);
    Decoded found;
    auto const readOn = [&] {
        while (decoder.read(data, request) > 0) {
        }
    };
    found.error = raisedBy(readOn);
    require(raisedBy(readOn), found.error, "the end when asked for again");
    found.data.assign(data.str(), data.pcount());
    QORByteBuffer rest(16, 16);
    while (found.error.empty() && buffered.read(rest, 4096) > 0) {
    }
    found.rest.assign(rest.str(), rest.pcount());
    return found;
}

bool isHexadecimal(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// A decoder over the whole text; false where the text is no chunked body, or is cut short.
bool decodeWhole(std::string_view coded, Decoded& found) {
    for (;;) {
        std::size_t const end = coded.find("\r\n");
        std::size_t digits = 0;
        while (digits < coded.size() && isHexadecimal(coded[digits])) ++digits;
        if (end == coded.npos || digits == 0 || digits > 8) return false;
        unsigned long const size =
            std::strtoul(std::string(coded.substr(0, digits)).c_str(), nullptr, 16);
        std::string_view const behind = coded.substr(digits, end - digits);
        std::size_t const extension = std::min(behind.find_first_not_of(" \t"), behind.size());
        if (size > INT_MAX || behind.size() > 4096 || behind.find_first_of("\r\n") != behind.npos)
            return false;
        if (extension < behind.size() && behind[extension] != ';') return false;
        coded.remove_prefix(end + 2);
        if (size == 0) break;
        if (coded.size() < size + 2 || coded.substr(size, 2) != "\r\n") return false;
        found.data.append(coded.substr(0, size));
        coded.remove_prefix(size + 2);
    }
    std::size_t trailer = 0;
    for (std::size_t end; (end = coded.find("\r\n")) != coded.npos; trailer += end + 2) {
        std::string_view const line = coded.substr(0, end);
        coded.remove_prefix(end + 2);
        if (line.empty()) {
            found.rest = coded;
            return trailer <= 65536;
        }
        if (line.find_first_of("\r\n") != line.npos) return false;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const coded = asText(data, size);
    Decoded const first = decode(coded, INT_MAX, 4096);
    for (int const step : kReadSizes) {
        for (int const request : {1, 7, 4096}) {
            Decoded const found = decode(coded, step, request);
            require(found.error, first.error, "the error");
            require(found.data, first.data, "the data");
            require(found.rest, first.rest, "what follows the body");
        }
    }
    Decoded whole;
    bool const complete = decodeWhole(coded, whole);
    require(first.error.empty() ? "complete" : "failed", complete ? "complete" : "failed",
            "the outcome");
    if (!complete) return 0;
    require(first.data, whole.data, "the data");
    require(first.rest, whole.rest, "what follows the body");
    return 0;
}
