#pragma once

#include <cstddef>
#include <string>

#include <sys/uio.h>

#include "service/Descriptor.h"

namespace postwire {

// What one side of a connection receives and sends, in a file NAME as SoapSocket::echo writes it,
// and when, in a file NAME.times: a line "# postwire times 1", for a trace of what TLS carries
// "# clear text of TLS", then "r BYTES SECONDS.MICROS" for each receive and "s ..." for each send.
//
// Ownership: owns its descriptors.
// Units: the time is the system's, since 1970.
// Rule: each record is written at once, since a trace is read when something has gone wrong. What
//   can't be written, as on a full disk, ends the trace; nothing is raised.
class WireTrace {
public:
    // Takes over two empty files; without the first it writes down times alone.
    WireTrace(Descriptor bytes, Descriptor times, bool isClearTextOfTls = false);

    void received(char const* bytes, std::size_t n) noexcept;
    void sent(char const* bytes, std::size_t n) noexcept;

    // What was sent of two pieces together.
    void sent(char const* first, std::size_t firstSize, char const* second,
              std::size_t secondSize) noexcept;

    // The errno of what could not be written; 0 while all was.
    [[nodiscard]] int error() const noexcept { return m_error; }

private:
    void record(char const* verb, iovec first, iovec second) noexcept;
    void write(Descriptor const& to, iovec* pieces, int count) noexcept;

    Descriptor m_bytes;
    Descriptor m_times;
    int m_error = 0;
};

// A pair of new files PREFIX-000001.trace, or with the first number after `number` that is free,
// which no one but their owner may read: a trace holds every secret that went over the connection.
// Raises ServiceError::Code::system.
WireTrace beginTrace(std::string const& folder, std::string const& prefix, int& number,
                     bool isClearTextOfTls);

}  // namespace postwire
