#pragma once

#include <stdexcept>
#include <string>

#include "foundation/Export.h"

namespace postwire {

// Why a client has no answer, and whether the server may have acted on the message all the same.
//
// Ownership: holds its text; copies and catches like any std::exception, across libraries too.
class POSTWIRE_EXPORT ClientError : public std::runtime_error {
public:
    enum class Code {
        usage = 1,  // the caller's mistake: no URL, a header line that breaks, a body without end
        resolve,    // the name of the server, or of the proxy, has no address
        connect,    // no address could be connected to, or the proxy refused
        tls,        // no common version or cipher, or a certificate that is not to be trusted
        send,       // the connection failed while the message was sent
        receive,    // it failed, or ended, before the answer was complete
        time,       // a limit passed
        cancelled,  // by Cancellation
        malformed,  // the answer is not HTTP as the policy has it, or is cut short
        status,     // the answer's status is not 2xx, and the caller asked for this
    };

    // How much of the message the system had taken. With `nothing` no server can have acted on it;
    // `all` is all, be it that none of it arrived.
    enum class Sent { nothing, something, all };

    // The text gets the system's own behind it where there is a number.
    ClientError(Code code, std::string const& text, Sent sent = Sent::nothing, int systemError = 0,
                int status = 0);
    ClientError(ClientError const&) noexcept;
    ClientError& operator=(ClientError const&) noexcept;
    ~ClientError() override;

    [[nodiscard]] Code code() const noexcept { return m_code; }
    [[nodiscard]] Sent sent() const noexcept { return m_sent; }

    // The errno of the call that failed; 0 for none.
    [[nodiscard]] int systemError() const noexcept { return m_systemError; }

    // Of the answer, or of what a proxy answered; 0 for none.
    [[nodiscard]] int status() const noexcept { return m_status; }

private:
    Code m_code;
    Sent m_sent;
    int m_systemError;
    int m_status;
};

}  // namespace postwire
