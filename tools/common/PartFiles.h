#pragma once

#include <string>
#include <unordered_map>
#include <vector>

class HTTPMessage;

// A file name made from a text of a message, its Content-ID or Content-Location: letters, digits
// and "._-@+=" stay, other bytes become '_'; angle brackets and what stands before the last '/' are
// left out; it begins with neither '.' nor '-' and is at most 100 bytes long. `otherwise` is taken
// where nothing is left.
std::string safeFileName(std::string const& text, std::string const& otherwise);

// Writes the bodies of messages into files of one directory.
//
// Raises: std::system_error with the name of the file or directory.
// Rule: a file is only ever created, never opened: what stands in the directory stays as it is, be
//   it a file or a link, and a name that is taken gets a number. A file has its name from the
//   moment on at which it is whole; until then it has one that begins with ".postwire-".
class PartFiles {
public:
    // Makes the directory where there is none.
    explicit PartFiles(std::string const& directory);
    PartFiles(PartFiles const&) = delete;
    PartFiles& operator=(PartFiles const&) = delete;
    ~PartFiles();

    // Raises where no file can be made.
    void requireWritable() const;

    // The body of the message, or of each part that has no parts; the names of the files, in order.
    // Each begins with the prefix. Where one can't be written, none stays. May be called by several
    // threads at once.
    std::vector<std::string> save(HTTPMessage& message, std::string const& prefix) const;

private:
    // What one message left behind. For each name the number that was given last: of many parts
    // of one name each would else try all the numbers before its own.
    struct Saved {
        std::string const& prefix;
        std::vector<std::string> names;
        std::unordered_map<std::string, int> numbers;
    };

    void save(HTTPMessage& message, Saved& saved) const;
    void drop(Saved const& saved) const noexcept;
    std::string write(char const* bytes, int n) const;
    [[noreturn]] void discard(std::string const& name) const;
    std::string nameFile(std::string const& temporary, std::string const& name, int& number) const;

    std::string m_directory;
    int m_descriptor;
};
