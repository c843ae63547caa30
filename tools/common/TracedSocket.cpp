#include "tools/common/TracedSocket.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <unistd.h>

TracedSocket::~TracedSocket() = default;

void TracedSocket::traceInto(int descriptor) {
    m_echoFile = ::fdopen(descriptor, "wb");
    if (m_echoFile) return;
    int const cause = errno;
    ::close(descriptor);
    throw std::system_error(cause, std::generic_category(), "a trace");
}

bool TracedSocket::endTrace() {
    if (!m_echoFile) return true;
    bool const failed = std::ferror(m_echoFile);
    bool const closed = std::fclose(m_echoFile) == 0;
    m_echoFile = nullptr;
    return closed && !failed;
}
