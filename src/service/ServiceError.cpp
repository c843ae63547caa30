#include "service/ServiceError.h"

#include <system_error>

namespace postwire {

std::string withReason(std::string const& text, int systemError) {
    if (systemError == 0) return text;
    return text + ": " + std::generic_category().message(systemError);
}

ServiceError::ServiceError(Code code, std::string const& text, int systemError)
    : std::runtime_error(withReason(text, systemError)), m_code(code), m_systemError(systemError) {}

ServiceError::ServiceError(ServiceError const&) noexcept = default;
ServiceError& ServiceError::operator=(ServiceError const&) noexcept = default;
ServiceError::~ServiceError() = default;

}  // namespace postwire
