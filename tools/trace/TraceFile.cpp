#include "tools/trace/TraceFile.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBuffer = 1 << 17;

[[noreturn]] void fail(std::string const& path) {
    throw TraceError(path + ": " + std::strerror(errno));
}

enum class Outcome { Good, Cut, Bad };

// Takes `text` off the front of `left`; Cut when `left` ends within it.
Outcome take(std::string_view& left, std::string_view text) {
    std::size_t const n = std::min(left.size(), text.size());
    if (left.substr(0, n) != text.substr(0, n)) return Outcome::Bad;
    left.remove_prefix(n);
    return n == text.size() ? Outcome::Good : Outcome::Cut;
}

Outcome takeNumber(std::string_view& left, std::uint64_t& number) {
    auto const [end, error] = std::from_chars(left.data(), left.data() + left.size(), number);
    if (error != std::errc()) return left.empty() ? Outcome::Cut : Outcome::Bad;
    auto const digits = static_cast<std::size_t>(end - left.data());
    // No single call carries so much.
    if (number > INT_MAX || digits > 10) return Outcome::Bad;
    left.remove_prefix(digits);
    return Outcome::Good;
}

// The line before a record; what is behind it stays in `left`.
Outcome takeLine(std::string_view& left, TraceRecord& record) {
    record.read = left.size() > 2 && left[2] == 'r';
    Outcome outcome = take(left, record.read ? "\n<read[" : "\n<write[");
    if (outcome == Outcome::Good) outcome = takeNumber(left, record.count);
    if (outcome == Outcome::Good) outcome = take(left, "]>\n");
    return outcome;
}

}  // namespace

TraceFile::TraceFile(std::string const& path, bool follow)
    : m_path(path), m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (m_descriptor == -1) fail(path);
    if (!follow) return;
    m_watch = ::inotify_init1(IN_CLOEXEC);
    if (m_watch == -1 || ::inotify_add_watch(m_watch, path.c_str(), IN_MODIFY | IN_CLOSE_WRITE) < 0)
        fail(path);
}

TraceFile::~TraceFile() {
    ::close(m_descriptor);
    if (m_watch != -1) ::close(m_watch);
}

std::size_t TraceFile::read(char* to, std::size_t n, std::uint64_t at) {
    for (;;) {
        ssize_t const got = ::pread(m_descriptor, to, n, static_cast<off_t>(at));
        if (got > 0) return static_cast<std::size_t>(got);
        if (got < 0 && errno != EINTR) fail(m_path);
        if (got == 0 && !waitForMore()) return 0;
    }
}

std::uint64_t TraceFile::size() const {
    struct stat state {};
    if (::fstat(m_descriptor, &state) == -1) fail(m_path);
    return static_cast<std::uint64_t>(state.st_size);
}

bool TraceFile::waitForMore() {
    if (m_watch == -1) return false;
    alignas(inotify_event) char events[4096];
    ssize_t const got = ::read(m_watch, events, sizeof events);
    if (got == -1 && errno != EINTR) fail(m_path);
    for (ssize_t at = 0; at < got && m_watch != -1;) {
        inotify_event event{};
        std::memcpy(&event, events + at, sizeof event);
        at += static_cast<ssize_t>(sizeof event + event.len);
        if (event.mask & IN_MODIFY) continue;
        ::close(m_watch);  // what was written before this is read once more
        m_watch = -1;
    }
    return true;
}

TraceCursor::TraceCursor(TraceFile& file)
    : m_file(file), m_times(file.path() + ".times"), m_buffer(kBuffer) {}

bool TraceCursor::next() {
    skip(m_left);
    m_left = 0;
    for (;;) {
        std::string_view left = buffered();
        Outcome const outcome = takeLine(left, m_record);
        if (outcome == Outcome::Good) {
            m_begin = m_end - left.size();
            m_left = m_record.count;
            m_record.index = m_records++;
            m_record.time = m_times.of(m_record.index, m_record.read, m_record.count);
            return true;
        }
        if (outcome == Outcome::Bad) throw TraceError(whyBad());
        if (!refill()) break;
    }
    std::uint64_t const at = position(), size = m_file.size();
    if (at == 0 && m_end - m_begin > 0 && m_end - m_begin < 3) throw TraceError(whyBad());
    m_missing = m_begin != m_end ? -1 : at > size ? static_cast<std::int64_t>(at - size) : 0;
    return false;
}

std::string TraceCursor::whyBad() const {
    return m_file.path() + (position() == 0 ? ": not a socket trace"
                                            : ": damaged at byte " + std::to_string(position()));
}

std::string_view TraceCursor::take(std::size_t n) {
    if (m_left == 0 || (m_begin == m_end && !refill())) return {};
    std::uint64_t const least = std::min<std::uint64_t>({n, m_left, m_end - m_begin});
    std::string_view const taken = buffered().substr(0, static_cast<std::size_t>(least));
    m_begin += taken.size();
    m_left -= taken.size();
    return taken;
}

// Adds to what is buffered; false at the end of the file.
bool TraceCursor::refill() {
    std::copy(m_buffer.begin() + static_cast<std::ptrdiff_t>(m_begin),
              m_buffer.begin() + static_cast<std::ptrdiff_t>(m_end), m_buffer.begin());
    m_end -= m_begin;
    m_begin = 0;
    std::size_t const got = m_file.read(&m_buffer[m_end], m_buffer.size() - m_end, m_readTo);
    m_readTo += got;
    m_end += got;
    return got > 0;
}

void TraceCursor::skip(std::uint64_t n) {
    std::size_t const held = m_end - m_begin;
    if (n <= held) {
        m_begin += static_cast<std::size_t>(n);
        return;
    }
    m_readTo += n - held;
    m_begin = m_end = 0;
}
