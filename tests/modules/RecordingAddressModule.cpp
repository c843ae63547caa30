// An address module that keeps a record of its calls. The host "nowhere" has no address, every
// other one is this machine. Handles count up from 100.

#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

std::string record;
unsigned long handles = 99;
unsigned short lastPort = 0;
bool known = false;

}  // namespace

extern "C" {
char const* recordedCalls();  // since it was last asked
int TOV_ResolveAddress(unsigned long*, char*, unsigned short, int, unsigned long*);
int TOV_ResolveAddressFromURI(unsigned long*, char*, int, unsigned long*);
int TOV_GetAddress(unsigned long, unsigned long, sockaddr_storage*);
int TOV_GetAddressAsText(sockaddr_storage*, char*, long);
void TOV_ResolveAddressFree(unsigned long);
}

char const* recordedCalls() {
    static std::string taken;
    taken.swap(record);
    record.clear();
    return taken.c_str();
}

int TOV_ResolveAddress(unsigned long* handle, char* host, unsigned short port, int flags,
                       unsigned long* status) {
    *handle = ++handles;
    lastPort = port;
    known = std::strcmp(host, "nowhere") != 0;
    record += "resolve " + std::string(host) + " flags " + std::to_string(flags) + " status " +
              std::to_string(*status) + "; ";
    return 17;
}

int TOV_ResolveAddressFromURI(unsigned long* handle, char* uri, int flags, unsigned long* status) {
    return TOV_ResolveAddress(handle, uri, 0, flags, status) + 1;
}

int TOV_GetAddress(unsigned long handle, unsigned long index, sockaddr_storage* address) {
    record += "get " + std::to_string(index) + "; ";
    sockaddr_in in{};
    in.sin_family = known ? AF_INET : 0xFFFF;
    in.sin_port = htons(lastPort);
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(address, &in, sizeof in);
    return handle == handles ? 19 : -1;
}

int TOV_GetAddressAsText(sockaddr_storage*, char*, long size) { return static_cast<int>(size); }

// What it throws reaches no one.
void TOV_ResolveAddressFree(unsigned long handle) {
    record += handle == handles ? "free; " : "free of another; ";
    throw 1;
}
