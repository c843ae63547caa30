#pragma once

#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "foundation/ZULBufferedInputStream.h"

#include "service/ClientSocket.h"

namespace postwire {

// One connection of a client: to an origin, or to the proxy on the way there.
struct ClientConnection {
    explicit ClientConnection(Descriptor connected) : socket(std::move(connected)) {}

    std::string origin;  // for which messages it serves
    ClientSocket socket;
    std::chrono::steady_clock::time_point since{};  // it waits
};

// The connections of a client that wait for the next message.
//
// Ownership: owns them while they wait.
// Rule: used by several threads at once.
class ConnectionPool {
public:
    explicit ConnectionPool(ClientOptions const& options) : m_options(options) {}

    // The one that has waited for the shortest time and is not closed; null for none.
    std::unique_ptr<ClientConnection> take(std::string const& origin);

    // Beyond the limits those that have waited for longest go.
    void giveBack(std::unique_ptr<ClientConnection> connection);

private:
    using List = std::list<std::unique_ptr<ClientConnection>>;

    void dropOld(List& dropped);

    ClientOptions const& m_options;
    std::mutex m_mutex;
    List m_waiting;  // the first for longest
};

}  // namespace postwire
