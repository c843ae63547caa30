#pragma once

#include <atomic>
#include <string>
#include <thread>

// A server that does with one connection after the other what a script says, see
// data/client_exchanges.txt. What has come last is kept.
class ScriptedServer {
public:
    explicit ScriptedServer(std::string const& script);
    ScriptedServer(ScriptedServer const&) = delete;
    ~ScriptedServer();

    [[nodiscard]] int port() const { return m_port; }
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port); }

    // Whether it waits for a connection or for a request, or its script is through.
    [[nodiscard]] bool isWaiting() const { return m_isWaiting; }

    // Waits until the script is through; the last request.
    std::string const& received();

private:
    void run(std::string const& script);
    void serve(int connection, std::string const& steps);
    bool receiveUntil(int connection, bool wholeRequest);

    int m_socket;
    int m_port = 0;
    std::atomic<bool> m_isWaiting{true};
    std::string m_received;
    std::thread m_thread;
};
