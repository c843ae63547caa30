#include "service/NumberedFile.h"

#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace postwire {

namespace {

[[noreturn]] void raise(std::string const& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

NumberedFile::NumberedFile(std::string const& folder, std::size_t first) {
    for (std::size_t number = first; m_file.get() == -1; ++number) {
        m_path = folder + "/part-" + std::to_string(number);
        m_file = Descriptor(
            ::open(m_path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (m_file.get() == -1 && errno != EEXIST) raise(m_path);
    }
}

NumberedFile::~NumberedFile() {
    if (!m_kept && m_file.get() != -1) ::unlink(m_path.c_str());
}

void NumberedFile::write(char const* bytes, std::size_t size) {
    while (size > 0) {
        ssize_t const n = ::write(m_file.get(), bytes, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) raise(m_path);
        bytes += n;
        size -= static_cast<std::size_t>(n);
    }
}

void NumberedFile::keep() {
    if (::close(m_file.release()) != 0) {
        int const error = errno;
        ::unlink(m_path.c_str());
        errno = error;
        raise(m_path);
    }
    m_kept = true;
}

}  // namespace postwire
