#pragma once

#include <sys/socket.h>

// The address module, which turns host names into socket addresses. It is delivered apart from
// the library and looked up by name at run time.
//
// Ownership: owns one resolution, which the module releases. A module that was loaded stays in the
//   process; the dynamic loader counts how often.
// Rule: the module is used in full or not at all: where it, or one of its five entry points, is
//   missing, every operation gives its default, and nothing is raised. An object serves one
//   resolution.
class QORSocketAddress {
public:
    // Opens the module of that name: "X" stands in libX.so.
    explicit QORSocketAddress(char const* moduleName);
    QORSocketAddress(QORSocketAddress const&) = delete;
    QORSocketAddress& operator=(QORSocketAddress const&) = delete;
    virtual ~QORSocketAddress();

    void open(char const* moduleName);
    bool tryOpen(char const* moduleName);  // loads the file alone
    bool isOpen() const { return m_moduleHandle != nullptr; }

    // Releases the resolution and the module.
    void close();

    // Resolve: 0 without the module. Flags: 1 for a listening socket, 0 for an address to connect
    // to. *status is 1 unless the module says otherwise.
    int TOV_ResolveAddress(char* host, unsigned short port, int flags, unsigned long* status);
    int TOV_ResolveAddressFromURI(char* uri, int flags, unsigned long* status);

    // The address at an index; family 0xFFFF: the host has none. All zero and 0 without the module
    // or a resolution.
    int TOV_GetAddress(unsigned long index, sockaddr_storage* address);

    // -1 without the module.
    int TOV_GetAddressAsText(sockaddr_storage* address, char* text, long size);

private:
    void releaseResolution();

    using FreeEntry = void (*)(unsigned long);
    using ResolveEntry = int (*)(unsigned long*, char*, unsigned short, int, unsigned long*);
    using ResolveFromURIEntry = int (*)(unsigned long*, char*, int, unsigned long*);
    using GetEntry = int (*)(unsigned long, unsigned long, sockaddr_storage*);
    using GetAsTextEntry = int (*)(sockaddr_storage*, char*, long);

    void* m_moduleHandle = nullptr;
    unsigned long m_resolution = 0;
    FreeEntry m_free = nullptr;
    ResolveEntry m_resolve = nullptr;
    ResolveFromURIEntry m_resolveFromURI = nullptr;
    GetEntry m_get = nullptr;
    GetAsTextEntry m_getAsText = nullptr;
};
