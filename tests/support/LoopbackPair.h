#pragma once

#include <csignal>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include "socket/SoapSocket.h"

// The descriptor that an Open made, and the one that reads and writes.
struct SocketDescriptors : SoapSocket {
    static int made(SoapSocket const& s) { return s.*&SocketDescriptors::m_socket; }
    static int io(SoapSocket const& s) { return s.*&SocketDescriptors::m_ioSocket; }
};

// Which of them a socket holds: "none", "socket", "io", or "both", which are one.
inline std::string heldBy(SoapSocket const& s) {
    int const made = SocketDescriptors::made(s), io = SocketDescriptors::io(s);
    if (made != -1) return io == made ? "both" : io == -1 ? "socket" : "two";
    return io == -1 ? "none" : "io";
}

// "1001 Connection refused": id and details of the SoapSocketException a call raised; "" without.
template <class Call>
std::string socketFailure(Call const& call) {
    try {
        call();
    } catch (SoapSocketException& e) {
        return std::to_string(e.id()) + " " + e.getDetails();
    }
    return "";
}

inline sockaddr_storage loopback() {
    char host[] = "127.0.0.1";
    return SoapSocket::GetIPAddress(host);
}

// The two ends of a connection over the loopback interface.
struct LoopbackPair {
    LoopbackPair() {
        std::signal(SIGPIPE, SIG_IGN);
        server.Open(0);
        near.Open(server.m_boundPort, loopback());
        far = server.AwaitCommunicationAttempt();
    }
    ~LoopbackPair() { closeFar(); }
    LoopbackPair(LoopbackPair const&) = delete;
    LoopbackPair& operator=(LoopbackPair const&) = delete;

    void sendFromFar(std::string const& bytes) const { ::send(far, bytes.data(), bytes.size(), 0); }

    // All bytes up to the end of the stream, which this waits for.
    std::string receivedByFar() const {
        std::string all;
        char piece[65536];
        for (ssize_t n; (n = ::recv(far, piece, sizeof piece, 0)) > 0;)
            all.append(piece, static_cast<std::size_t>(n));
        return all;
    }
    void closeFar() {
        if (far != -1) ::close(far);
        far = -1;
    }

    // The near end meets a reset instead of an end.
    void resetFar() {
        linger const atOnce{1, 0};
        ::setsockopt(far, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        closeFar();
    }

    SoapServerSocket server;
    SoapSocket near;
    int far = -1;
};
