#include "service/ClientError.h"

#include "service/ServiceError.h"

namespace postwire {

ClientError::ClientError(Code code, std::string const& text, Sent sent, int systemError, int status)
    : std::runtime_error(withReason(text, systemError)),
      m_code(code),
      m_sent(sent),
      m_systemError(systemError),
      m_status(status) {}

ClientError::ClientError(ClientError const&) noexcept = default;
ClientError& ClientError::operator=(ClientError const&) noexcept = default;
ClientError::~ClientError() = default;

}  // namespace postwire
