// The address module: host names and IPv4 addresses through the system's resolver.
//
// Ownership: a resolution handle is the caller's, to be given to TOV_ResolveAddressFree once.
// Units: ports are in host byte order as arguments, in network byte order within addresses.
// Rule: any thread may call any entry point at any time. A handle is never 0: one of a host without
//   addresses gives family 0xFFFF at every index.

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "foundation/Export.h"

namespace {

constexpr sa_family_t kNoAddress = 0xFFFF;

// Stands for the list of a host without addresses, which is null and would look like no handle.
addrinfo emptyList;

static_assert(sizeof(unsigned long) == sizeof(void*));

unsigned long handleOf(addrinfo* list) {
    return reinterpret_cast<unsigned long>(list ? list : &emptyList);
}

addrinfo* listOf(unsigned long handle) {
    addrinfo* list = nullptr;
    std::memcpy(&list, &handle, sizeof handle);
    return list == &emptyList ? nullptr : list;
}

// The system would look an empty host up like a name, and take a missing one for this machine.
addrinfo* resolve(char const* host, unsigned short port) {
    if (!host || !*host) return nullptr;
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;  // each address once, not once a protocol
    wanted.ai_flags = AI_NUMERICSERV;
    char service[8];
    std::snprintf(service, sizeof service, "%d", port);
    addrinfo* list = nullptr;
    return getaddrinfo(host, service, &wanted, &list) == 0 ? list : nullptr;
}

int store(addrinfo* list, unsigned long* resolution, unsigned long* status) {
    *resolution = handleOf(list);
    *status = list ? 0 : 1;
    return list ? 1 : 0;
}

// The part of a text in front of the first of some characters; all of it where there is none.
std::string_view upTo(std::string_view text, char const* ends) {
    return text.substr(0, text.find_first_of(ends));
}

// "80" as in "http://host:80/"; without a port the scheme's own, 0 for one that is not known.
bool readPort(std::string_view scheme, std::string_view text, unsigned short& port) {
    if (text.empty()) {
        port = scheme == "http" ? 80 : scheme == "https" ? 443 : 0;
        return true;
    }
    auto const [end, error] = std::from_chars(text.begin(), text.end(), port);
    return error == std::errc() && end == text.end();
}

addrinfo* resolveURI(std::string_view uri) {
    std::size_t const schemeEnd = uri.find("://");
    if (schemeEnd == std::string_view::npos) return nullptr;
    std::string_view authority = upTo(uri.substr(schemeEnd + 3), "/?#");
    authority.remove_prefix(authority.rfind('@') + 1);  // npos + 1 is 0
    std::string_view const name = upTo(authority, ":");
    authority.remove_prefix(name.size());
    char host[NI_MAXHOST] = {};
    unsigned short port = 0;
    if (name.size() >= sizeof host) return nullptr;
    if (!readPort(uri.substr(0, schemeEnd), authority.substr(authority.empty() ? 0 : 1), port))
        return nullptr;
    name.copy(host, name.size());
    return resolve(host, port);
}

}  // namespace

extern "C" {

// 1 and status 0 when the host has an address, else 0 and status 1. The flags tell a listening
// socket from an address to connect to; there is always a host, so that makes no difference.
POSTWIRE_EXPORT int TOV_ResolveAddress(unsigned long* resolution, char* host, unsigned short port,
                                       int flags, unsigned long* status);

// The same for the host and port of "scheme://user@host:port/path".
POSTWIRE_EXPORT int TOV_ResolveAddressFromURI(unsigned long* resolution, char* uri, int flags,
                                              unsigned long* status);

// 1, or 0 and family 0xFFFF where there is no address at that index.
POSTWIRE_EXPORT int TOV_GetAddress(unsigned long resolution, unsigned long index,
                                   sockaddr_storage* address);

// "127.0.0.1:80" and 0, or an empty text and -1 for another family or too little room.
POSTWIRE_EXPORT int TOV_GetAddressAsText(sockaddr_storage* address, char* text, long size);

POSTWIRE_EXPORT void TOV_ResolveAddressFree(unsigned long resolution);

int TOV_ResolveAddress(unsigned long* resolution, char* host, unsigned short port, int,
                       unsigned long* status) {
    return store(resolve(host, port), resolution, status);
}

int TOV_ResolveAddressFromURI(unsigned long* resolution, char* uri, int, unsigned long* status) {
    return store(resolveURI(uri ? uri : ""), resolution, status);
}

int TOV_GetAddress(unsigned long resolution, unsigned long index, sockaddr_storage* address) {
    addrinfo const* entry = listOf(resolution);
    for (; entry && index > 0; --index) entry = entry->ai_next;
    std::memset(address, 0, sizeof *address);
    address->ss_family = kNoAddress;
    if (!entry) return 0;
    std::memcpy(address, entry->ai_addr, entry->ai_addrlen);
    return 1;
}

int TOV_GetAddressAsText(sockaddr_storage* address, char* text, long size) {
    if (size <= 0) return -1;
    text[0] = '\0';
    if (address->ss_family != AF_INET) return -1;
    sockaddr_in in{};
    std::memcpy(&in, address, sizeof in);
    char digits[INET_ADDRSTRLEN];
    char whole[INET_ADDRSTRLEN + 8];
    inet_ntop(AF_INET, &in.sin_addr, digits, sizeof digits);
    int const length = std::snprintf(whole, sizeof whole, "%s:%d", digits, ntohs(in.sin_port));
    if (length >= size) return -1;
    std::memcpy(text, whole, static_cast<std::size_t>(length) + 1);
    return 0;
}

void TOV_ResolveAddressFree(unsigned long resolution) {
    if (addrinfo* const list = listOf(resolution)) freeaddrinfo(list);
}

}  // extern "C"
