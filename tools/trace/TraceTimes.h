#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

// Since the beginning of 1970; of a span, its length.
using Microseconds = std::int64_t;
constexpr Microseconds kNoTime = -1;

// The file of times that may stand beside a trace: "# postwire times 1", "# clear text of TLS"
// where that is so, then for each receive and send "r BYTES SECONDS.MICROS" or "s BYTES
// SECONDS.MICROS".
class TraceTimes {
public:
    // Without such a file there are no times.
    explicit TraceTimes(std::string const& path);

    // When this record was made, if that is known: they are asked for in their order.
    Microseconds of(std::uint64_t index, bool read, std::uint64_t count);

    // Whether the trace holds what a TLS connection carried in clear text.
    bool areOfTls() const { return m_tls; }

    // Whether the file tells of other records than the trace; from there on there are no times.
    bool areOfAnother() const { return m_other; }

private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    // The next whole line, without its end; one that is still being written is no line yet.
    bool readLine();

    std::unique_ptr<std::FILE, Closer> m_file;
    std::string m_line;
    std::uint64_t m_lines = 0;  // of records
    bool m_begun = false;       // its first line was read
    bool m_tls = false;
    bool m_other = false;
};
