#pragma once

#include <atomic>
#include <memory>

#include "foundation/Export.h"

namespace postwire {

class WakeUp;

// Ends exchanges of a client that wait for something: they raise ClientError::Code::cancelled.
//
// Ownership: outlives the exchanges that were told of it.
// Raises: ServiceError::Code::system where no descriptor is left for it.
class POSTWIRE_EXPORT Cancellation {
public:
    Cancellation();
    Cancellation(Cancellation const&) = delete;
    Cancellation& operator=(Cancellation const&) = delete;
    ~Cancellation();

    // For good, from any thread and from a signal handler.
    void cancel() noexcept;

    [[nodiscard]] bool isCancelled() const noexcept { return m_cancelled; }

    // Readable once it is cancelled.
    [[nodiscard]] int descriptor() const noexcept;

private:
    std::unique_ptr<WakeUp> m_wakeUp;
    std::atomic<bool> m_cancelled{false};
};

}  // namespace postwire
