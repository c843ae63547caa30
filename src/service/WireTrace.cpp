#include "service/WireTrace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>

#include "service/ServiceError.h"

namespace postwire {

namespace {

iovec pieceOf(char const* bytes, std::size_t n) { return {const_cast<char*>(bytes), n}; }

Descriptor openNew(std::string const& path) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return Descriptor(::open(path.c_str(), kFlags, 0600));
}

}  // namespace

WireTrace::WireTrace(Descriptor bytes, Descriptor times, bool isClearTextOfTls)
    : m_bytes(std::move(bytes)), m_times(std::move(times)) {
    char const* const head =
        isClearTextOfTls ? "# postwire times 1\n# clear text of TLS\n" : "# postwire times 1\n";
    iovec piece = pieceOf(head, std::strlen(head));
    write(m_times, &piece, 1);
}

void WireTrace::received(char const* bytes, std::size_t n) noexcept {
    record("read", pieceOf(bytes, n), {});
}

void WireTrace::sent(char const* bytes, std::size_t n) noexcept {
    record("write", pieceOf(bytes, n), {});
}

void WireTrace::sent(char const* first, std::size_t firstSize, char const* second,
                     std::size_t secondSize) noexcept {
    record("write", pieceOf(first, firstSize), pieceOf(second, secondSize));
}

void WireTrace::record(char const* verb, iovec first, iovec second) noexcept {
    char text[64];
    std::size_t const size = first.iov_len + second.iov_len;
    int length = std::snprintf(text, sizeof text, "\n<%s[%zu]>\n", verb, size);
    iovec pieces[3] = {pieceOf(text, static_cast<std::size_t>(length)), first, second};
    if (m_bytes.get() != -1) write(m_bytes, pieces, 3);
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    length = std::snprintf(text, sizeof text, "%c %zu %lld.%06ld\n", *verb == 'r' ? 'r' : 's', size,
                           static_cast<long long>(now.tv_sec), now.tv_nsec / 1000);
    pieces[0] = pieceOf(text, static_cast<std::size_t>(length));
    write(m_times, pieces, 1);
}

void WireTrace::write(Descriptor const& to, iovec* pieces, int count) noexcept {
    while (count > 0 && m_error == 0) {
        ssize_t const n = ::writev(to.get(), pieces, count);
        if (n == -1 && errno != EINTR) m_error = errno;
        if (n == -1) continue;
        auto left = static_cast<std::size_t>(n);
        for (; count > 0 && left >= pieces->iov_len; --count) left -= pieces++->iov_len;
        if (count > 0)
            *pieces = {static_cast<char*>(pieces->iov_base) + left, pieces->iov_len - left};
    }
}

WireTrace beginTrace(std::string const& folder, std::string const& prefix, int& number,
                     bool isClearTextOfTls) {
    for (;;) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "-%06d", ++number);
        std::string path = folder;
        path.append("/").append(prefix).append(digits).append(".trace");
        Descriptor bytes = openNew(path);
        Descriptor times = bytes.get() == -1 ? Descriptor() : openNew(path + ".times");
        if (times.get() != -1)
            return WireTrace(std::move(bytes), std::move(times), isClearTextOfTls);
        int const cause = errno;
        if (bytes.get() != -1) ::unlink(path.c_str());  // a full disk takes a file, and not two
        if (cause != EEXIST)
            throw ServiceError(ServiceError::Code::system, "can't trace into " + path, cause);
    }
}

}  // namespace postwire
