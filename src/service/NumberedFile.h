#pragma once

#include <string>

#include "service/Descriptor.h"

namespace postwire {

// A new file in a folder, "part-1" or the next number that is free, readable by its owner alone. It
// goes again unless it was kept.
//
// Raises: std::system_error with its path.
class NumberedFile {
public:
    // Numbers from `first` on are tried.
    NumberedFile(std::string const& folder, std::size_t first);
    NumberedFile(NumberedFile const&) = delete;
    NumberedFile& operator=(NumberedFile const&) = delete;
    ~NumberedFile();

    void write(char const* bytes, std::size_t size);
    void keep();
    [[nodiscard]] std::string const& path() const { return m_path; }

private:
    std::string m_path;
    Descriptor m_file;
    bool m_kept = false;
};

}  // namespace postwire
