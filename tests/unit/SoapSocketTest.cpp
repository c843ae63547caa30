#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "socket/SoapSocket.h"
#include "support/AllocationFaults.h"

TEST(SoapSocketException, KeepsItsTextsWithinTheirRoom) {
    std::string const details(200, 'd'), file(5000, 'f');
    SoapSocketException longOne(file.c_str(), 3, 1002, details.c_str());
    EXPECT_EQ(details.substr(0, 128), longOne.getDetails());
    EXPECT_EQ(file.substr(0, 4095), longOne.getSourceFileName());
    EXPECT_EQ(0, longOne.systemError());
    SoapSocketException empty(nullptr, 3, 1002, nullptr);
    EXPECT_STREQ("", empty.getDetails());
    EXPECT_STREQ("null", empty.getSourceFileName());
    EXPECT_STREQ("SoapSocketException", empty.getExceptionName());
    SoapExEndofStream ended("Reader", 7);
    EXPECT_STREQ("SoapExEndofStream", ended.getExceptionName());
    SoapSocketException copy(ended);
    EXPECT_EQ(1003, copy.id());
    EXPECT_EQ(7, copy.getSourceLine());
    EXPECT_STREQ("Reader", copy.getSourceFileName());
    EXPECT_STREQ("SoapExEndofStream", copy.getDetails());
}

// A peer that reads byte by byte, and one that resets while bytes are still to come.
TEST(SoapSocketPeer, TakesAllThatIsWrittenOrResets) {
    std::signal(SIGPIPE, SIG_IGN);
    std::string body(8 << 20, '\0');
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
    for (bool resets : {false, true}) {
        SoapServerSocket server;
        server.Open(0);
        SoapSocket near;
        near.Open(server.m_boundPort, SoapSocket::GetIPAddress(std::string("localhost").data()));
        int const far = server.AwaitCommunicationAttempt();
        std::string arrived;
        std::thread peer([&] {
            char piece[65536];
            // Long enough that the writer waits for it.
            std::size_t const singly = resets ? 5000 : 500000;
            while (arrived.size() < singly && ::recv(far, piece, 1, 0) == 1) arrived += *piece;
            linger const atOnce{1, 0};
            if (resets) ::setsockopt(far, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
            for (ssize_t n; !resets && (n = ::recv(far, piece, sizeof piece, 0)) > 0;)
                arrived.append(piece, static_cast<std::size_t>(n));
            ::close(far);
        });
        int written = 7, id = 0;
        std::string details;
        try {
            near.WriteBuffer(reinterpret_cast<unsigned char const*>(body.data()),
                             static_cast<int>(body.size()), &written);
        } catch (SoapSocketException& e) {
            id = e.id();
            details = e.getDetails();
        }
        near.Close();
        peer.join();
        EXPECT_EQ(resets ? 1004 : 0, id);
        EXPECT_EQ(resets ? 0 : 8 << 20, written);
        EXPECT_TRUE(!resets || details == std::strerror(ECONNRESET)) << details;
        EXPECT_TRUE(resets || arrived == body);
    }
}

TEST(SoapSocketMemory, IsReleasedWhenAllocationsFail) {
    EXPECT_LT(5, forEachFailingAllocation([] {
                  SoapServerSocket server;
                  server.Open(0);
                  SoapSocket near(server.m_boundPort, SoapSocket::MaxIPAddress);
                  near.Open();
                  SoapSocket far(server.AwaitCommunicationAttempt());
                  QORByteBuffer buf(16, 16);
                  far.getOutputStream()->write("hello", 5);
                  near.getInputStream()->read(buf, 100);
              }));
}
