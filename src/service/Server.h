#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "foundation/Export.h"

#include "service/Request.h"
#include "service/Response.h"
#include "service/ServerOptions.h"
#include "service/ServiceError.h"

namespace postwire {

class ServerCore;

// What a server holds at a moment.
struct ServerLoad {
    int connections = 0;
    int idle = 0;            // of these, between two requests
    std::size_t memory = 0;  // bytes of ServerOptions::bodyBudget
};

// An HTTP/1.1 server for POST requests that a program embeds: it listens, reads each request under
// a policy and within limits, calls the program's handler, and writes the answer. Connections that
// wait cost a few hundred bytes and no thread; slow peers and slow handlers hold up nobody else.
//
// Refused without a call of the handler: 400 for malformed input, 405 for another method than POST,
// 408, 413, 414, 431, 501 and 505, and 503 beyond the limits for connections and memory. The
// connection is then closed. What a handler raises is answered 500.
//
// Ownership: owns its sockets and threads; the handler is copied.
// Raises: ServiceError.
// Rule: the disposition of no signal is changed, and no write raises SIGPIPE.
class POSTWIRE_EXPORT Server {
public:
    // Called from several threads at once. Runs on a thread of usual stack size and may block: then
    // other threads take over what its own would have done.
    using Handler = std::function<void(Request&, Response&)>;

    // Listens from now on, on all addresses of this machine, or as told.
    explicit Server(int port);
    explicit Server(ServerOptions const& options);
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    // Waits for handlers that are still running.
    ~Server();

    // The port that is listened on; 0 for a socket of the file system.
    [[nodiscard]] int port() const;

    // The address that is listened on, also by a descriptor that was handed over: "127.0.0.1",
    // "::1"; "0.0.0.0" or "::" for all; empty for a socket of the file system.
    [[nodiscard]] std::string address() const;

    // At any time, from any thread.
    [[nodiscard]] ServerLoad load() const noexcept;

    // Serves until stop; once for each server. Returns when all requests under way are answered,
    // or, without the handlers that still run, when their time limits have passed.
    void run(Handler handler);

    // Ends run, from any thread and from a signal handler: what has arrived is answered, with
    // "Connection: close", and nothing more is accepted. Before run it ends that at once.
    void stop() noexcept;

private:
    std::unique_ptr<ServerCore> m_core;
};

}  // namespace postwire
