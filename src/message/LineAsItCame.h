#pragma once

#include <string_view>

#include "message/HTTPMessage.h"

namespace postwire::internal {

// A look at what a header leaves out: it merges, trims and cuts. Not installed: for the service
// floor, which keeps the lines of each head beside the tree.
struct LineAsItCame {
    // The text behind the colon of a header that a parser's event gave and that no one has asked or
    // changed yet; else empty. Good as long as the event.
    static std::string_view text(HTTPHeader const& header) {
        return header.m_borrowed ? header.m_borrowed->text() : std::string_view();
    }
};

}  // namespace postwire::internal
