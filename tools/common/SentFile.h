#pragma once

#include <optional>
#include <string>

// A file that is sent as a body of its own.
struct SentFile {
    std::string path;
    std::string type;
    std::string contentId;  // without angle brackets; empty: one is made from the path
    long long size = 0;
    std::string sha256;                  // of what was sent, once it was
    std::optional<std::string> bytes{};  // of no file: of the standard input
};

// Raises std::system_error when there is no such regular file, and std::invalid_argument with a
// text for a person when type or Content-ID can't stand in a header field.
SentFile describeFile(std::string const& path, std::string const& type,
                      std::string const& contentId);

// Standard input as the file "-".
SentFile readStandardInput(std::string const& type, std::string const& contentId);

// Takes "FILE[;type[;cid]]" apart: the file is the longest beginning that is one's name, so that it
// may hold semicolons; the type may have parameters: "FILE;text/plain; charset=utf-8".
// It is application/octet-stream where none is given. Raises what describeFile raises.
SentFile parseAttachment(std::string const& text);
