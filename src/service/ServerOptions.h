#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Export.h"

#include "parser/HTTPReadPolicy.h"
#include "service/BodyChoice.h"
#include "service/ExchangeReport.h"
#include "service/TlsContext.h"

namespace postwire {

// What a Server is told before it listens. Every limit has a default that is safe on a port that
// anyone may reach.
//
// Ownership: a descriptor that is handed over is the server's from then on.
// Units: bytes, counts, milliseconds.
// Rule: a server copies its options; what is changed afterwards changes nothing.
struct POSTWIRE_EXPORT ServerOptions {
    // Where to listen: an IPv4 or IPv6 address; empty for all addresses of both kinds.
    std::string address;
    int port = 0;         // 0: one that the system chooses; Server::port tells which
    int descriptor = -1;  // a listening socket, instead of the two above
    int backlog = 4096;   // connections that the system holds until they are accepted

    // Where there is one, all connections are of TLS. The handshake has the time of a head; who has
    // not finished by then is cut off. The program may keep a copy, and have it reload.
    std::optional<TlsContext> tls;

    // Threads that wait for connections and read from them; 0: one for each processor.
    int loops = 0;
    // Handlers that may run at once. A thread is started when one is wanted, and kept.
    int handlers = 64;

    // Whether more than one request may come over a connection.
    bool keepAlive = true;

    // One connection more is answered 503 and closed.
    int maxConnections = 20000;
    // The same for one peer address; 0: no limit of its own. For servers that clients reach
    // directly: behind a proxy all come from one address.
    int maxConnectionsOfAddress = 0;

    // How bodies are read; without it all become trees, within the policy's limits.
    BodyChooser chooseBody;

    HTTPReadPolicy policy = HTTPReadPolicy::hardened();
    // All that trees hold together: bodies, and where they did not come at once, heads of parts. A
    // request that would go beyond it is answered 503 at once: if it waited, it would keep what it
    // has, and so might all others.
    std::size_t bodyBudget = std::size_t{256} << 20;

    // Until a request begins; then the connection is closed.
    std::chrono::milliseconds idleLimit{60000};
    // From a request's first byte to the end of its head, and to the end of its body: else 408.
    std::chrono::milliseconds headLimit{10000};
    std::chrono::milliseconds requestLimit{60000};
    // Until the peer has taken its answer; then the connection is closed.
    std::chrono::milliseconds answerLimit{60000};
    // Bytes a second that a peer has to send of a request, and to take of an answer, on average
    // from its beginning; looked at from the tenth second on. 0: none.
    int lowestRate = 100;

    // What each connection receives and sends goes into a file of its own in this folder, which has
    // to be there: connection-000001.trace as SoapSocket::echo writes it, and beside it when,
    // connection-000001.trace.times. Readable by their owner alone, as they hold every secret. What
    // can't be traced, as on a full disk, is served all the same. Empty: nothing is traced.
    std::string traceFolder;

    // Called by run once it serves. What it raises ends the server, and passes through.
    std::function<void()> ready;

    // Told of each exchange.
    ExchangeObserver observe;

    // Gets a line for what the operator should know and no client is told: descriptors or memory
    // have run out, or traces can't be written. Once an episode; without it the line goes to the
    // standard error stream.
    std::function<void(std::string_view)> complain;
};

}  // namespace postwire
