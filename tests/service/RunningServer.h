#pragma once

#include <string>
#include <thread>
#include <utility>

#include "service/Server.h"

// Says what was read: body, number of parts, target.
inline void describe(postwire::Request& request, postwire::Response& response) {
    HTTPMessage& message = request.message();
    std::string text(request.uri());
    text += " " + std::to_string(message.num_parts()) + " ";
    text.append(message.contentSize() > 0 ? message.contentBytes() : "",
                static_cast<std::size_t>(message.contentSize()));
    response.send(200, "text/plain", text);
}

class RunningServer {
public:
    explicit RunningServer(postwire::Server::Handler handler = describe,
                           postwire::ServerOptions const& options = {})
        : m_server(options),
          m_thread([this, handler = std::move(handler)] { m_server.run(handler); }) {}
    ~RunningServer() { stop(); }

    void stop() {
        m_server.stop();
        if (m_thread.joinable()) m_thread.join();
    }
    postwire::Server& operator*() { return m_server; }
    int port() const { return m_server.port(); }

private:
    postwire::Server m_server;
    std::thread m_thread;
};

inline postwire::ServerOptions oneLoop() {
    postwire::ServerOptions options;
    options.loops = 1;
    return options;
}
