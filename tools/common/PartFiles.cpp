#include "tools/common/PartFiles.h"

#include <algorithm>
#include <cerrno>
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
    std::error_code ignored;  // open tells whether there is a directory now
    std::filesystem::create_directories(directory, ignored);
    m_descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_descriptor == -1) raiseSystemError(directory);
}

PartFiles::~PartFiles() { ::close(m_descriptor); }

std::vector<std::string> PartFiles::save(HTTPMessage& message, std::string const& prefix) const {
    std::vector<std::string> names;
    save(message, prefix, names);
    return names;
}

void PartFiles::save(HTTPMessage& message, std::string const& prefix,
                     std::vector<std::string>& names) const {
    for (int i = 0; i < message.num_parts(); ++i) save(*message.getPart(i), prefix, names);
    if (message.num_parts() > 0) return;
    std::string text = headerText(message, "Content-ID");
    if (text.empty()) text = headerText(message, "Content-Location");
    std::string const name = safeFileName(text, "part-" + std::to_string(names.size() + 1));
    names.push_back(write(prefix + name, message.contentBytes(), message.contentSize()));
}

std::string PartFiles::write(std::string const& name, char const* bytes, int n) const {
    for (int number = 1;; ++number) {
        std::string candidate = numbered(name, number);
        int const flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        int const descriptor = ::openat(m_descriptor, candidate.c_str(), flags, 0666);
        if (descriptor == -1 && errno == EEXIST) continue;
        if (descriptor == -1) raiseSystemError(m_directory + "/" + candidate);
        OpenFile file(descriptor);
        if (file.write(bytes, n) && file.close()) return candidate;
        int const cause = errno;
        ::unlinkat(m_descriptor, candidate.c_str(), 0);  // half a part would pass for a whole one
        errno = cause;
        raiseSystemError(m_directory + "/" + candidate);
    }
}
