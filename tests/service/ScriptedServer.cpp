#include "service/ScriptedServer.h"

#include <sstream>
#include <string_view>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "service/HttpPeer.h"

ScriptedServer::ScriptedServer(std::string const& script, Tls tls)
    : m_socket(listenOnLoopback(m_port)), m_tls(std::move(tls)) {
    m_thread = std::thread([this, script] { run(script); });
}

ScriptedServer::~ScriptedServer() {
    ::shutdown(m_socket, SHUT_RDWR);
    if (m_thread.joinable()) m_thread.join();
    ::close(m_socket);
}

std::string const& ScriptedServer::received() {
    if (m_thread.joinable()) m_thread.join();
    return m_received;
}

void ScriptedServer::run(std::string const& script) {
    std::istringstream all(script);
    for (std::size_t at = 0; at != std::string::npos;) {
        std::size_t const end = script.find(" / ", at);
        m_isWaiting = true;
        int const connection = ::accept(m_socket, nullptr, nullptr);
        if (connection == -1) return;
        try {
            if (m_tls) m_line = std::make_unique<postwire::TlsSocket>(*m_tls, ::dup(connection));
            serve(connection, script.substr(at, end == std::string::npos ? end : end - at));
        } catch (SoapSocketException const&) {
            // The client has gone.
        }
        m_line.reset();
        ::close(connection);
        at = end == std::string::npos ? end : end + 3;
    }
    m_isWaiting = true;
}

void ScriptedServer::serve(int connection, std::string const& steps) {
    std::istringstream all(steps);
    for (std::string step; std::getline(all, step, ';');) {
        m_isWaiting = step != "reset" && step.compare(0, 4, "say ") != 0;
        if (step == "read" || step == "head") m_received.clear();
        if (step == "read" || step == "body") receiveUntil(connection, true);
        if (step == "head") receiveUntil(connection, false);
        if (step.compare(0, 4, "say ") == 0) {
            if (m_line)
                m_line->getOutputStream()->write(step.data() + 4,
                                                 static_cast<int>(step.size() - 4));
            else
                ::send(connection, step.data() + 4, step.size() - 4, MSG_NOSIGNAL);
        }
        if (step == "await") {
            char block[65536];
            while (receive(connection, block, sizeof block) > 0) {
            }
        }
        if (step == "cut") ::shutdown(connection, SHUT_RDWR);
        pollfd end{m_socket, POLLRDHUP, 0};
        if (step == "hold") ::poll(&end, 1, 20000);
        linger const atOnce{1, 0};
        if (step == "reset")
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        m_isWaiting = false;
    }
}

int ScriptedServer::receive(int connection, char* block, int size) {
    if (m_line) return m_line->getInputStream()->read(block, size);
    return static_cast<int>(::recv(connection, block, static_cast<std::size_t>(size), 0));
}

bool ScriptedServer::receiveUntil(int connection, bool wholeRequest) {
    char block[65536];
    for (std::size_t head = std::string::npos;;) {
        if (head == std::string::npos) head = m_received.find("\r\n\r\n");
        if (head != std::string::npos) {
            std::size_t const length = m_received.substr(0, head).find("Content-Length: ");
            std::string_view const end("0\r\n\r\n");
            bool const isWhole =
                length < head
                    ? m_received.size() >= head + 4 + std::stoul(m_received.substr(length + 16))
                    : m_received.compare(m_received.size() - end.size(), end.size(), end) == 0;
            if (!wholeRequest || isWhole) return true;
        }
        // Of a head no byte more.
        int const n = receive(connection, block, wholeRequest ? sizeof block : 1);
        if (n <= 0) return false;
        m_received.append(block, static_cast<std::size_t>(n));
    }
}
