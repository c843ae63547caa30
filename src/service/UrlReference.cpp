#include "service/UrlReference.h"

#include <algorithm>

#include "foundation/AsciiText.h"

namespace postwire {

namespace {

// The pieces of a URL, each with the characters that mark it.
struct Pieces {
    explicit Pieces(std::string_view text) {
        std::size_t const end = std::min(text.find_first_of(":/?#"), text.size());
        if (end > 0 && end < text.size() && text[end] == ':') scheme = take(text, end + 1);
        fragment = text.substr(std::min(text.find('#'), text.size()));
        text.remove_suffix(fragment.size());
        query = text.substr(std::min(text.find('?'), text.size()));
        text.remove_suffix(query.size());
        if (text.substr(0, 2) == "//")
            authority = take(text, std::min(text.find('/', 2), text.size()));
        path = text;
    }

    static std::string_view take(std::string_view& text, std::size_t n) {
        std::string_view const taken = text.substr(0, n);
        text.remove_prefix(n);
        return taken;
    }

    std::string_view scheme, authority, path, query, fragment;
};

// RFC 3986 section 5.2.4.
std::string withoutDots(std::string_view path) {
    std::string out;
    while (!path.empty()) {
        std::size_t const end = std::min(path.find('/', 1), path.size());
        std::string_view const segment = Pieces::take(path, end);
        std::string_view const name = segment.substr(segment.front() == '/' ? 1 : 0);
        if (name == "..") out.erase(out.rfind('/') == out.npos ? 0 : out.rfind('/'));
        if (name != "." && name != "..")
            out += segment;
        else if (path.empty())
            out += '/';
    }
    return out;
}

std::string merged(Pieces const& base, std::string_view path) {
    if (path.front() == '/') return std::string(path);
    if (!base.authority.empty() && base.path.empty()) return "/" + std::string(path);
    return std::string(base.path.substr(0, base.path.rfind('/') + 1)).append(path);
}

}  // namespace

std::string resolvedUrl(std::string_view base, std::string_view reference) {
    Pieces const from(base), to(reference);
    std::string path(to.path);
    std::string_view scheme = to.scheme, authority = to.authority, query = to.query;
    if (scheme.empty()) {
        scheme = from.scheme;
        if (authority.empty()) {
            authority = from.authority;
            if (path.empty()) {
                path = from.path;
                if (query.empty()) query = from.query;
            } else {
                path = withoutDots(merged(from, path));
            }
        } else {
            path = withoutDots(path);
        }
    } else if (!authority.empty() || path.substr(0, 1) == "/") {
        path = withoutDots(path);
    }
    return std::string(scheme).append(authority).append(path).append(query).append(to.fragment);
}

}  // namespace postwire
