#include <vector>

#include "EveryReadSize.h"
#include "foundation/StringTokenizer.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

// Cuts the text at every delimiter; nothing follows one at the very end.
std::string expectedTokens(std::string const& text, std::string const& delims, bool emptyTokens) {
    std::string tokens;
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const end = std::min(text.find_first_of(delims, at), text.size());
        if (end > at || emptyTokens) tokens += "<" + text.substr(at, end - at) + ">";
        at = end + 1;
    }
    return tokens;
}

std::string tokensOf(QORStringTokenizer& tokenizer) {
    std::string tokens;
    while (tokenizer.hasMoreTokens()) tokens += std::string("<") + tokenizer.nextToken() + ">";
    return tokens;
}

}  // namespace

// The first two bytes are the delimiters.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size < 2) return 0;
    std::string const delims(std::string(asText(data, 2)).c_str());
    std::string const text(std::string(asText(data + 2, size - 2)).c_str());
    for (int const emptyTokens : {0, 1}) {
        QORStringTokenizer tokenizer(text.c_str(), delims.c_str(), emptyTokens);
        require(tokensOf(tokenizer), expectedTokens(text, delims, emptyTokens != 0), "a text");
        int const length = static_cast<int>(size - 2);
        QORStringTokenizer counted(asText(data + 2, size - 2).data(), length, delims.c_str(),
                                   emptyTokens);
        require(tokensOf(counted), expectedTokens(text, delims, emptyTokens != 0), "its prefix");
        if (counted.hasMoreTokens() != 0) std::abort();
    }
    return 0;
}
