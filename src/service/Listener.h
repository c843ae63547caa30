#pragma once

#include <string>

#include "service/Connection.h"
#include "service/Descriptor.h"
#include "service/ServerOptions.h"

namespace postwire {

// The socket that connections come from.
//
// Raises: ServiceError::Code::address and Code::system.
class Listener {
public:
    // Listens from now on.
    explicit Listener(ServerOptions const& options);

    [[nodiscard]] int descriptor() const { return m_socket.get(); }
    // Of the socket itself, whoever made it.
    [[nodiscard]] PeerAddress address() const;

    // A connection that waits, without delays of its small sends; -1 with errno when there is none.
    int accept(PeerAddress& peer) const;

    // Nobody can connect any more.
    void close() { m_socket.reset(); }

private:
    Descriptor m_socket;
};

}  // namespace postwire
