#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "service/TlsSocket.h"

// A server that does with one connection after the other what a script says, see
// data/client_exchanges.txt. What has come last is kept.
class ScriptedServer {
public:
    using Tls = std::optional<postwire::TlsContext>;
    explicit ScriptedServer(std::string const& script, Tls tls = {});
    ScriptedServer(ScriptedServer const&) = delete;
    ~ScriptedServer();

    [[nodiscard]] int port() const { return m_port; }
    [[nodiscard]] std::string url() const {
        return (m_tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(m_port);
    }

    // Whether it waits for a connection or for a request, or its script is through.
    [[nodiscard]] bool isWaiting() const { return m_isWaiting; }

    // Waits until the script is through; the last request.
    std::string const& received();

private:
    void run(std::string const& script);
    void serve(int connection, std::string const& steps);
    bool receiveUntil(int connection, bool wholeRequest);
    int receive(int connection, char* block, int size);

    int m_port = 0;
    int m_socket;
    Tls m_tls;
    std::unique_ptr<postwire::TlsSocket> m_line;  // of the connection at hand, within TLS
    std::atomic<bool> m_isWaiting{true};
    std::string m_received;
    std::thread m_thread;
};
