#include "tools/common/StandardStreams.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

void openStandardStreams() {
    int descriptor = 0;
    do descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor != -1 && descriptor <= STDERR_FILENO);
    if (descriptor != -1) ::close(descriptor);
}

void finishOutput() {
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw std::system_error(errno, std::generic_category(), "standard output");
}
