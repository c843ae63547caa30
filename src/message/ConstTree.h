#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "message/HTTPMessage.h"

namespace postwire::internal {

// A look at a tree that changes nothing, not even what a look-up would keep for the next one. Not
// installed: for the service floor, whose views may be used by several threads.
struct ConstTree {
    // Calls header(name, header) for each entry that has been taken apart, in their order, and
    // line(name, text) for each line that no one has asked for, as it came.
    template <class OnHeader, class OnLine>
    static void forEachField(HTTPMessage const& message, OnHeader header, OnLine line) {
        for (auto const& [name, value] : message.m_headers.m_headers)
            header(std::string_view(name), value);
        for (HeaderLine const entry : message.m_headers.m_lines) line(entry.name(), entry.text());
    }

    static std::string_view value(HTTPHeader const& header) { return header.m_value; }
    static bool isQuoted(HTTPHeader const& header) { return header.m_quoted != 0; }
    static auto const& attributes(HTTPHeader const& header) { return header.m_attributes; }

    static std::string_view body(HTTPMessage const& message) {
        if (!message.m_pContent) return {};
        return {message.m_pContent->str(), message.m_pContent->pcount()};
    }

    template <class F>
    static void forEachPart(HTTPMessage const& message, F f) {
        if (!message.m_pParts) return;
        for (HTTPMessage const* const part : *message.m_pParts) f(*part);
    }
};

}  // namespace postwire::internal
