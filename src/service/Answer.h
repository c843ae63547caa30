#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Export.h"

#include "message/HTTPMessage.h"
#include "service/HeadLine.h"

namespace postwire {

// What a server has answered.
//
// Ownership: owns the tree; files in which bodies were saved stay when it ends.
class POSTWIRE_EXPORT Answer {
public:
    struct Data;

    explicit Answer(std::unique_ptr<Data> data);
    Answer(Answer&&) noexcept;
    Answer& operator=(Answer&&) noexcept;
    ~Answer();

    [[nodiscard]] int status() const;
    [[nodiscard]] std::string const& reason() const;

    // Whether the status is 2xx.
    [[nodiscard]] bool isGood() const { return status() / 100 == 2; }

    // Empty where a handler got the answer; without bodies where they were saved.
    [[nodiscard]] HTTPMessage& message();
    [[nodiscard]] HTTPMessage const& message() const;

    // The lines of the answer's own head, and of its parts' in the order in which they came, as the
    // tree does not keep them. They are good as long as the answer.
    [[nodiscard]] int headCount() const;
    [[nodiscard]] std::vector<HeadLine> headLines(int head = 0) const;

    // The body as text; empty for one in parts.
    [[nodiscard]] std::string body();

    // Paths of the bodies that were saved, in the order in which they came.
    [[nodiscard]] std::vector<std::string> const& files() const;

    // Of the exchange: what was sent and received in all, heads and framing included, and the time
    // from the call to the end.
    [[nodiscard]] std::uint64_t bytesSent() const;
    [[nodiscard]] std::uint64_t bytesReceived() const;
    [[nodiscard]] std::chrono::microseconds duration() const;

    // The errno of what could not be written to the connection's trace; 0 while all was.
    [[nodiscard]] int traceError() const;

private:
    std::unique_ptr<Data> m_data;
};

}  // namespace postwire
