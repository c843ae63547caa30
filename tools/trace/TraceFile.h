#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// One receive or send of a traced socket.
struct TraceBlock {
    bool read;               // received, else sent
    std::string_view bytes;  // within the TraceFile
};

// The file is no trace, or is damaged at the place that the text names.
class TraceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The trace that a socket wrote: for each receive and send a line "<read[n]>" or "<write[n]>"
// between line feeds, then the n bytes.
class TraceFile {
public:
    // Reads the whole file. A last block that is cut short, as when the traced program was killed,
    // is kept as far as it goes.
    explicit TraceFile(std::string const& path);
    TraceFile(TraceFile const&) = delete;
    TraceFile& operator=(TraceFile const&) = delete;

    std::vector<TraceBlock> const& blocks() const { return m_blocks; }

    // How many bytes the last block lacks; -1 when its header line is cut itself.
    long missing() const { return m_missing; }

private:
    std::string m_content;
    std::vector<TraceBlock> m_blocks;
    long m_missing = 0;
};
