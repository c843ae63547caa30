#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/trace/TraceTimes.h"

// The file is no trace, or is damaged at the place that the text names.
class TraceError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The trace that a socket wrote: for each receive and send a line "<read[n]>" or "<write[n]>"
// between line feeds, then the n bytes. It may be larger than memory.
class TraceFile {
public:
    // A file that is followed ends when the program that writes it closes it.
    TraceFile(std::string const& path, bool follow);
    TraceFile(TraceFile const&) = delete;
    TraceFile& operator=(TraceFile const&) = delete;
    ~TraceFile();

    std::string const& path() const { return m_path; }
    bool isFollowed() const { return m_watch != -1; }

    // What stands at this place, at most n bytes; 0 at the end. Waits for more where the file is
    // followed.
    std::size_t read(char* to, std::size_t n, std::uint64_t at);

    std::uint64_t size() const;

private:
    // False when nothing will be added any more.
    bool waitForMore();

    std::string m_path;
    int m_descriptor;
    int m_watch = -1;  // of inotify; -1: not followed, or closed by its writer
};

// One receive or send of a traced socket.
struct TraceRecord {
    bool read = false;        // received, else sent
    std::uint64_t count = 0;  // of bytes, as its line says
    std::uint64_t index = 0;  // within the trace
    Microseconds time = kNoTime;
};

// Goes through the records of a file from its beginning, with a buffer of its own.
class TraceCursor {
public:
    // The file is borrowed.
    explicit TraceCursor(TraceFile& file);

    // Leaves what was not taken of the record before; false at the end of the file. A last record
    // that is cut short, as when the traced program was killed, is used as far as it goes.
    bool next();

    TraceRecord const& record() const { return m_record; }

    // How many bytes of the record were not taken yet.
    std::uint64_t left() const { return m_left; }

    // The next bytes of the record, good until the next call; none where the file ends.
    std::string_view take(std::size_t n);

    // At the end: how many bytes the last record lacks; -1 when its line is cut itself.
    std::int64_t missing() const { return m_missing; }

    TraceTimes const& times() const { return m_times; }

private:
    std::string_view buffered() const { return {m_buffer.data() + m_begin, m_end - m_begin}; }
    std::uint64_t position() const { return m_readTo - (m_end - m_begin); }
    std::string whyBad() const;
    bool refill();
    void skip(std::uint64_t n);

    TraceFile& m_file;
    TraceTimes m_times;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0, m_end = 0;
    std::uint64_t m_readTo = 0;  // the place in the file behind the buffer
    TraceRecord m_record;
    std::uint64_t m_left = 0;
    std::uint64_t m_records = 0;
    std::int64_t m_missing = 0;
};
