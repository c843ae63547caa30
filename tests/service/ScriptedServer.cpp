#include "service/ScriptedServer.h"

#include <sstream>
#include <string_view>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

ScriptedServer::ScriptedServer(std::string const& script)
    : m_socket(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ::bind(m_socket, any, size);
    ::listen(m_socket, 16);
    ::getsockname(m_socket, any, &size);
    m_port = ntohs(address.sin_port);
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
        serve(connection, script.substr(at, end == std::string::npos ? end : end - at));
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
        if (step.compare(0, 4, "say ") == 0)
            ::send(connection, step.data() + 4, step.size() - 4, MSG_NOSIGNAL);
        if (step == "await") {
            char block[65536];
            while (::recv(connection, block, sizeof block, 0) > 0) {
            }
        }
        pollfd end{m_socket, POLLRDHUP, 0};
        if (step == "hold") ::poll(&end, 1, 20000);
        linger const atOnce{1, 0};
        if (step == "reset")
            ::setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        m_isWaiting = false;
    }
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
        ssize_t const n = ::recv(connection, block, wholeRequest ? sizeof block : 1, 0);
        if (n <= 0) return false;
        m_received.append(block, static_cast<std::size_t>(n));
    }
}
