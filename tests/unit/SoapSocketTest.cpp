#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "socket/QORSocketAddress.h"
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

TEST(QORSocketAddressResolver, ServesSeveralThreads) {
    std::vector<std::thread> threads;
    for (unsigned short port = 1; port <= 8; ++port)
        threads.emplace_back([port] {
            for (int i = 0; i < 100; ++i) {
                QORSocketAddress module("TOV_Crypto_Interface");
                char host[] = "localhost", text[32] = "";
                unsigned long status = 7;
                sockaddr_storage address;
                module.TOV_ResolveAddress(host, port, 0, &status);
                module.TOV_GetAddress(0, &address);
                module.TOV_GetAddressAsText(&address, text, sizeof text);
                EXPECT_EQ("127.0.0.1:" + std::to_string(port), text);
            }
        });
    for (std::thread& t : threads) t.join();
}
