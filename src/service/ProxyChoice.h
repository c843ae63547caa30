#pragma once

#include <optional>

#include "service/ClientOptions.h"
#include "service/Url.h"

namespace postwire {

// The proxy on the way to a server, as the options say; none for a direct one. Raises Code::usage
// for one that is no URL of http.
std::optional<Url> chooseProxy(ClientOptions const& options, Url const& url);

// Whether no_proxy names the host: items between commas, each a name that stands for those under
// it as well, with or without a leading dot, an address, or "*"; with a port behind it for that
// port alone.
bool isDirect(std::string_view noProxy, Url const& url);

}  // namespace postwire
