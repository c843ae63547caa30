#include "tools/common/PrivateFile.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Whether the file is empty now and private.
bool emptyPrivate(int descriptor) {
    struct stat facts {};
    if (::fstat(descriptor, &facts) == -1) return false;
    if (!S_ISREG(facts.st_mode)) return true;
    if ((facts.st_mode & (S_IRGRP | S_IROTH)) == 0 && facts.st_uid == ::geteuid())
        return ::ftruncate(descriptor, 0) == 0;
    errno = EPERM;
    return false;
}

[[noreturn]] void raiseSystemError(int cause, std::string const& what) {
    throw std::system_error(cause, std::generic_category(), what);
}

}  // namespace

int openPrivately(std::string const& path) {
    int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor != -1) return descriptor;
    if (errno == EEXIST) descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (descriptor == -1) raiseSystemError(errno, path);
    if (emptyPrivate(descriptor)) return descriptor;
    int const cause = errno;
    ::close(descriptor);
    raiseSystemError(cause, cause == EPERM ? path + " is there, and others may read it" : path);
}
