#include "socket/QORSocketAddress.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <dlfcn.h>

#include "foundation/QORFmDir.h"

#include "foundation/GuardedAllocation.h"

namespace {

char const libExt[] = ".so";

template <class Entry>
bool find(void* module, char const* name, Entry& entry) {
    entry = reinterpret_cast<Entry>(dlsym(module, name));
    return entry != nullptr;
}

}  // namespace

QORSocketAddress::QORSocketAddress(char const* moduleName) { open(moduleName); }

QORSocketAddress::~QORSocketAddress() { releaseResolution(); }

void QORSocketAddress::open(char const* moduleName) {
    if (!isOpen() && !tryOpen(moduleName)) return;
    bool const complete = find(m_moduleHandle, "TOV_ResolveAddress", m_resolve) &&
                          find(m_moduleHandle, "TOV_ResolveAddressFromURI", m_resolveFromURI) &&
                          find(m_moduleHandle, "TOV_GetAddress", m_get) &&
                          find(m_moduleHandle, "TOV_GetAddressAsText", m_getAsText) &&
                          find(m_moduleHandle, "TOV_ResolveAddressFree", m_free);
    if (!complete) close();
}

bool QORSocketAddress::tryOpen(char const* moduleName) {
    std::string file = std::string("lib").append(moduleName).append(libExt);
    QORFmDir::resolveEffectivePath(file);
    m_moduleHandle = dlopen(file.c_str(), RTLD_LAZY);
    return isOpen();
}

void QORSocketAddress::close() {
    if (!isOpen()) return;
    releaseResolution();
    dlclose(std::exchange(m_moduleHandle, nullptr));
    m_free = nullptr;
    m_resolve = nullptr;
    m_resolveFromURI = nullptr;
    m_get = nullptr;
    m_getAsText = nullptr;
}

int QORSocketAddress::TOV_ResolveAddress(char* host, unsigned short port, int flags,
                                         unsigned long* status) {
    *status = 1;
    return m_resolve ? m_resolve(&m_resolution, host, port, flags, status) : 0;
}

int QORSocketAddress::TOV_ResolveAddressFromURI(char* uri, int flags, unsigned long* status) {
    *status = 1;
    return m_resolveFromURI ? m_resolveFromURI(&m_resolution, uri, flags, status) : 0;
}

int QORSocketAddress::TOV_GetAddress(unsigned long index, sockaddr_storage* address) {
    if (m_get && m_resolution != 0) return m_get(m_resolution, index, address);
    std::memset(address, 0, sizeof *address);
    return 0;
}

int QORSocketAddress::TOV_GetAddressAsText(sockaddr_storage* address, char* text, long size) {
    return m_getAsText ? m_getAsText(address, text, size) : -1;
}

// Within a failed Open, whose error is still to be reported.
void QORSocketAddress::releaseResolution() {
    int const error = errno;
    unsigned long const resolution = std::exchange(m_resolution, 0);
    if (resolution != 0) runQuietly([this, resolution] { m_free(resolution); });
    errno = error;
}
