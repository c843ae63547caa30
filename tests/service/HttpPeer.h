#pragma once

#include <string>
#include <string_view>

// A client that sends bytes as it is told, and takes answers apart as far as tests ask.
class HttpPeer {
public:
    struct Answer {
        int status = 0;  // 0: the connection ended before an answer was here
        std::string head;
        std::string body;

        [[nodiscard]] bool says(std::string_view line) const {
            return head.find(std::string(line) + "\r\n") != std::string::npos;
        }
    };

    HttpPeer();
    explicit HttpPeer(int port, int receiveBuffer = 0);
    HttpPeer(std::string const& address, int port);
    HttpPeer(HttpPeer const&) = delete;
    HttpPeer& operator=(HttpPeer const&) = delete;
    ~HttpPeer();

    void connect(int port) const;
    void send(std::string_view bytes) const;
    void finish() const;  // sends no more
    void reset();         // gone at once

    // Waits for the answer; 20 s at most.
    Answer receive();
    Answer exchange(std::string_view bytes) {
        send(bytes);
        return receive();
    }

    // The next bytes, as many.
    std::string rest(std::size_t size);

    // Waits until the server closes; true when nothing came before.
    bool isClosed();

    // Waits until the server resets the connection, and takes so many bytes up to five times a
    // second, as often as `times` says.
    bool isCutOff(std::size_t takes = 0, int times = 150) const;

    [[nodiscard]] int socket() const { return m_socket; }

private:
    bool more();

    int m_socket;
    std::string m_got;
};

// A socket that listens on loopback, and where.
int listenOnLoopback(int& port, int backlog = 16);

// A request for `uri` with a body and further head lines.
std::string post(std::string_view uri, std::string_view body = {}, std::string_view lines = {});
