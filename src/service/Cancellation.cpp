#include "service/Cancellation.h"

#include "service/Descriptor.h"

namespace postwire {

Cancellation::Cancellation() : m_wakeUp(std::make_unique<WakeUp>()) {}
Cancellation::~Cancellation() = default;

void Cancellation::cancel() noexcept {
    m_cancelled = true;
    m_wakeUp->send();
}

int Cancellation::descriptor() const noexcept { return m_wakeUp->descriptor(); }

}  // namespace postwire
