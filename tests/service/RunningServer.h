#pragma once

#include <thread>
#include <utility>

#include "service/Server.h"

class RunningServer {
public:
    explicit RunningServer(postwire::Server::Handler handler,
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
