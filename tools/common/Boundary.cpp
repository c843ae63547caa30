#include "tools/common/Boundary.h"

#include <algorithm>

#include "foundation/AsciiText.h"
#include "message/HTTPMessage.h"
#include "service/RandomDigits.h"
#include "tools/common/BlockReader.h"

namespace {

bool isPlain(char c) {
    return isLetterOrDigit(c) || std::string_view("'+_.-").find(c) != std::string_view::npos;
}

}  // namespace

bool isPlainBoundary(std::string_view text) {
    return !text.empty() && text.size() <= 70 && std::all_of(text.begin(), text.end(), isPlain);
}

std::string makeBoundary() { return "postwire-" + postwire::randomDigits(); }

bool boundaryOccurs(std::string const& boundary, std::istream& bytes) {
    std::string const delimiter = "--" + boundary;
    std::string window;
    for (BlockReader block(bytes); block.next();) {
        window.append(block.bytes(), block.size());
        if (window.find(delimiter) != std::string::npos) return true;
        // The end of a block may be the beginning of a delimiter.
        window.erase(0, window.size() - std::min(window.size(), delimiter.size() - 1));
    }
    return false;
}

bool boundaryOccurs(std::string const& boundary, HTTPMessage& message) {
    for (int i = 0; i < message.num_parts(); ++i) {
        HTTPMessage& part = *message.getPart(i);
        if (boundaryOccurs(boundary, part)) return true;
        if (part.num_parts() > 0 &&
            std::string_view(part.getBoundary()).substr(0, boundary.size()) == boundary)
            return true;
    }
    std::string_view const body(message.contentBytes() ? message.contentBytes() : "",
                                static_cast<std::size_t>(message.contentSize()));
    return body.find("--" + boundary) != std::string_view::npos;
}
