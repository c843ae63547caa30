#include "service/ProxyChoice.h"

#include <cstdlib>
#include <string>

#include "foundation/AsciiText.h"
#include "service/ClientError.h"

namespace postwire {

namespace {

std::string environment(char const* name) {
    char const* const value = ::secure_getenv(name);
    return value ? value : "";
}

bool isOrIsUnder(std::string_view host, std::string_view name) {
    if (!name.empty() && name.front() == '.') name.remove_prefix(1);
    if (name.empty() || name.size() > host.size()) return false;
    std::size_t const before = host.size() - name.size();
    return equalsInAnyCase(host.substr(before), name) && (before == 0 || host[before - 1] == '.');
}

// Without the port, where it is this one; empty where it is another.
std::string_view withoutPort(std::string_view item, int port) {
    std::size_t const colon = item.rfind(':');
    bool const hasPort = colon != std::string_view::npos && item.find(':') == colon;
    if (hasPort) return item.substr(colon + 1) == std::to_string(port) ? item.substr(0, colon) : "";
    return item;
}

// An address of IPv6 stands in brackets or not.
bool names(std::string_view item, Url const& url) {
    if (item == "*") return true;
    if (!item.empty() && item.front() == '[') {
        std::size_t const end = item.find(']');
        if (end == std::string_view::npos) return false;
        std::string_view const rest = item.substr(end + 1);
        return equalsInAnyCase(item.substr(1, end - 1), url.host) &&
               (rest.empty() || rest == ":" + std::to_string(url.port));
    }
    return isOrIsUnder(url.host, withoutPort(item, url.port));
}

}  // namespace

bool isDirect(std::string_view noProxy, Url const& url) {
    bool found = false;
    forEachItem(noProxy, [&](std::string_view item) { found = found || names(item, url); });
    return found;
}

std::optional<Url> chooseProxy(ClientOptions const& options, Url const& url) {
    std::string proxy = options.proxy;
    if (proxy.empty() && options.proxyFromEnvironment && !isDirect(environment("no_proxy"), url))
        proxy = environment(url.isTls ? "https_proxy" : "http_proxy");
    if (proxy.empty()) return {};
    if (proxy.find("://") == std::string::npos) proxy.insert(0, "http://");
    Url parsed = parseUrl(proxy);
    if (parsed.isTls)
        throw ClientError(ClientError::Code::usage, "a proxy is reached by http://, not https://");
    return parsed;
}

}  // namespace postwire
