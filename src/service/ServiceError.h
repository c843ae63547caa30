#pragma once

#include <stdexcept>
#include <string>

#include "foundation/Export.h"

namespace postwire {

// The text with the system's own for the number behind it; 0: as it is.
std::string withReason(std::string const& text, int systemError);

// What the service classes raise.
//
// Ownership: holds its text; copies and catches like any std::exception, across libraries too.
class POSTWIRE_EXPORT ServiceError : public std::runtime_error {
public:
    enum class Code {
        address = 1,  // no address of this machine, or one that can't be listened on
        system,       // a call of the system failed otherwise
        usage,        // the caller's mistake: an option out of range, an answer given twice
        peerGone,     // the peer has closed or reset the connection
        timeLimit,    // the peer did not take its answer within the limit
        source,       // what was to be sent can't be read, or is not as long as it was
        malformed,    // a body is not in the transfer coding that it names
        certificate,  // a certificate, a key or a list of authorities can't be used
    };

    // The text gets the system's own behind it where there is a number.
    ServiceError(Code code, std::string const& text, int systemError = 0);
    ServiceError(ServiceError const&) noexcept;
    ServiceError& operator=(ServiceError const&) noexcept;
    ~ServiceError() override;

    [[nodiscard]] Code code() const noexcept { return m_code; }

    // The errno of the call that failed; 0 for none.
    [[nodiscard]] int systemError() const noexcept { return m_systemError; }

private:
    Code m_code;
    int m_systemError;
};

}  // namespace postwire
