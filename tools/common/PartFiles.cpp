#include "tools/common/PartFiles.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "foundation/AsciiText.h"
#include "message/HTTPMessage.h"
#include "tools/common/MessageSummary.h"

namespace {

[[noreturn]] void raiseSystemError(std::string const& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool isSafe(char c) {
    return isLetterOrDigit(c) || std::string_view("._-@+=").find(c) != std::string_view::npos;
}

// "name.ext", "name-2.ext", "name-3.ext" ...
std::string numbered(std::string const& name, int number) {
    if (number == 1) return name;
    std::size_t const dot = std::min(name.rfind('.'), name.size());
    return name.substr(0, dot) + "-" + std::to_string(number) + name.substr(dot);
}

// Renames a file to a name that is free: in one step, or where the file system has no such call, by
// a second link.
bool renameNew(int directory, std::string const& from, std::string const& to) {
    if (::renameat2(directory, from.c_str(), directory, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (::linkat(directory, from.c_str(), directory, to.c_str(), 0) == -1) return false;
    ::unlinkat(directory, from.c_str(), 0);
    return true;
}

class OpenFile {
public:
    explicit OpenFile(int descriptor) : m_descriptor(descriptor) {}
    OpenFile(OpenFile const&) = delete;
    OpenFile& operator=(OpenFile const&) = delete;
    ~OpenFile() {
        if (m_descriptor != -1) ::close(m_descriptor);
    }

    bool write(char const* bytes, int n) const {
        while (n > 0) {
            ssize_t const written = ::write(m_descriptor, bytes, static_cast<std::size_t>(n));
            if (written == -1 && errno != EINTR) return false;
            if (written == -1) continue;
            bytes += written;
            n -= static_cast<int>(written);
        }
        return true;
    }

    // Some file systems report a full disk only here.
    bool close() {
        int const descriptor = m_descriptor;
        m_descriptor = -1;
        return ::close(descriptor) == 0;
    }

private:
    int m_descriptor;
};

}  // namespace

std::string safeFileName(std::string const& text, std::string const& otherwise) {
    std::string name = text.substr(text.find_last_of("/\\") + 1);
    name.erase(
        std::remove_if(name.begin(), name.end(), [](char c) { return c == '<' || c == '>'; }),
        name.end());
    if (name.find_first_not_of(" .") == std::string::npos) name = otherwise;
    name.resize(std::min<std::size_t>(name.size(), 100));
    std::replace_if(
        name.begin(), name.end(), [](char c) { return !isSafe(c); }, '_');
    if (name.front() == '.' || name.front() == '-') name.front() = '_';
    return name;
}

PartFiles::PartFiles(std::string const& directory) : m_directory(directory) {
    std::error_code cause;  // open tells whether there is a directory now
    std::filesystem::create_directories(directory, cause);
    m_descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_descriptor != -1) return;
    if (cause) errno = cause.value();
    raiseSystemError(directory);
}

PartFiles::~PartFiles() { ::close(m_descriptor); }

std::vector<std::string> PartFiles::save(HTTPMessage& message, std::string const& prefix) const {
    Saved saved{prefix, {}, {}};
    try {
        save(message, saved);
    } catch (std::exception const&) {
        drop(saved);
        throw;
    }
    return saved.names;
}

void PartFiles::requireWritable() const { ::unlinkat(m_descriptor, write(nullptr, 0).c_str(), 0); }

void PartFiles::drop(Saved const& saved) const noexcept {
    for (std::string const& name : saved.names) ::unlinkat(m_descriptor, name.c_str(), 0);
}

void PartFiles::save(HTTPMessage& message, Saved& saved) const {
    for (int i = 0; i < message.num_parts(); ++i) save(*message.getPart(i), saved);
    if (message.num_parts() > 0) return;
    std::string text = headerText(message, "Content-ID");
    if (text.empty()) text = headerText(message, "Content-Location");
    std::string const otherwise = "part-" + std::to_string(saved.names.size() + 1);
    std::string const name = saved.prefix + safeFileName(text, otherwise);
    std::string const temporary = write(message.contentBytes(), message.contentSize());
    saved.names.push_back(nameFile(temporary, name, saved.numbers[name]));
}

// A file of no one's name that holds the bytes.
std::string PartFiles::write(char const* bytes, int n) const {
    static std::atomic<unsigned int> count{0};
    std::string const begin = ".postwire-" + std::to_string(::getpid()) + "-";
    for (;;) {
        std::string name = begin + std::to_string(++count);
        int const flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        int const descriptor = ::openat(m_descriptor, name.c_str(), flags, 0666);
        if (descriptor == -1 && errno == EEXIST) continue;  // of a process that was killed
        if (descriptor == -1) raiseSystemError(m_directory + "/" + name);
        OpenFile file(descriptor);
        if (file.write(bytes, n) && file.close()) return name;
        discard(name);
    }
}

// Gives the file the name with the first number after `number` that is not taken.
std::string PartFiles::nameFile(std::string const& temporary, std::string const& name,
                                int& number) const {
    for (;;) {
        std::string candidate = numbered(name, ++number);
        if (renameNew(m_descriptor, temporary, candidate)) return candidate;
        if (errno != EEXIST) discard(temporary);
    }
}

// Removes the file that errno tells of, and raises.
void PartFiles::discard(std::string const& name) const {
    int const cause = errno;
    ::unlinkat(m_descriptor, name.c_str(), 0);
    errno = cause;
    raiseSystemError(m_directory + "/" + name);
}
