// An address module that records its calls. The host "nowhere" has no address, every other one is
// this machine. Releasing a resolution also raises, which must reach no one.

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

std::string record;
sockaddr_in address;
constexpr unsigned long kHandle = 100;

void add(std::string const& call) { record += (record.empty() ? "" : ", ") + call; }

}  // namespace

extern "C" {

char const* recordedCalls();  // since it was last asked
int TOV_ResolveAddress(unsigned long*, char const*, unsigned short, int, unsigned long*);
int TOV_ResolveAddressFromURI(unsigned long*, char const*, int, unsigned long*);
int TOV_GetAddress(unsigned long, unsigned long, sockaddr_storage*);
int TOV_GetAddressAsText(sockaddr_storage*, char*, long);
void TOV_ResolveAddressFree(unsigned long);

char const* recordedCalls() {
    static std::string taken;
    taken = std::exchange(record, "");
    return taken.c_str();
}

int TOV_ResolveAddress(unsigned long* handle, char const* host, unsigned short port, int flags,
                       unsigned long*) {
    add("resolve " + std::string(host) + " flags " + std::to_string(flags));
    *handle = kHandle;
    address.sin_family = std::strcmp(host, "nowhere") == 0 ? 0xFFFF : AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return 17;
}

int TOV_ResolveAddressFromURI(unsigned long* handle, char const* uri, int flags, unsigned long*) {
    return TOV_ResolveAddress(handle, uri, 0, flags, nullptr) + 1;
}

int TOV_GetAddress(unsigned long handle, unsigned long index, sockaddr_storage* to) {
    add("get " + std::to_string(index));
    std::memcpy(to, &address, sizeof address);
    return handle == kHandle ? 19 : -1;
}

int TOV_GetAddressAsText(sockaddr_storage*, char*, long size) { return static_cast<int>(size); }

void TOV_ResolveAddressFree(unsigned long handle) {
    add(handle == kHandle ? "free" : "free of another");
    errno = 0;
    throw handle;
}

}  // extern "C"
