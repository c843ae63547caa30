#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include "socket/QORSocketAddress.h"

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
