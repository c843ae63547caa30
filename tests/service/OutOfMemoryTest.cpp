#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "service/Client.h"
#include "service/HttpPeer.h"
#include "service/Server.h"

namespace {

std::atomic<long> allocationsLeft{-1};  // of the server; below 0: any number
std::atomic<bool> failsOnce{true};
thread_local bool isClient = false;

bool failsNow() {
    if (isClient || allocationsLeft.load() < 0) return false;
    if (allocationsLeft.load() > 0 && --allocationsLeft > 0) return false;
    if (failsOnce) allocationsLeft = -1;
    return true;
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = failsNow() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (!block) throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

// Each allocation fails in turn, alone or with all that follow: of a small request, of one that is
// read elsewhere, of one that is refused, and of a client's look for a name, each on a connection
// of its own.
TEST(ServerMemory, ConnectionThatRunsOutOfItEndsAlone) {
    isClient = true;
    postwire::ServerOptions options;
    options.loops = 1;
    options.maxConnectionsOfAddress = 10000;
    options.complain = [](std::string_view) {};
    options.observe = [](postwire::ExchangeReport const&) {};
    postwire::Server server(options);
    std::thread runner([&] {
        server.run([](postwire::Request& request, postwire::Response& response) {
            response.send(200, "text/plain", std::string(request.uri()));
        });
    });
    std::string const wires[] = {post("/a-longer-target-than-most", "x"),
                                 post("/large", std::string(100000, 'x')),
                                 "GET / HTTP/1.1\r\n\r\n"};
    std::string const url = "http://localhost:" + std::to_string(server.port());
    std::vector<std::function<void()>> exchanges;
    for (std::string const& wire : wires)
        exchanges.emplace_back([&] { HttpPeer(server.port()).exchange(wire); });
    exchanges.emplace_back([&] {
        try {
            postwire::Client().post(url, "text/plain", "x");
        } catch (postwire::ClientError const&) {
            // Where the server, or the thread that looks for the name, ran out of it.
        }
    });
    HttpPeer before(server.port());
    int failures = 0;
    for (bool const once : {true, false})
        for (auto const& exchange : exchanges)
            for (long n = 1, left = 0; left == 0 && n < 1000; ++n) {
                EXPECT_EQ(200, before.exchange(wires[0]).status);
                failsOnce = once;
                allocationsLeft = n;
                exchange();
                left = allocationsLeft.exchange(-1);
                failures += left <= 0;
                left = left > 0 ? left : 0;
            }
    EXPECT_LT(40, failures);
    EXPECT_EQ(200, HttpPeer(server.port()).exchange(wires[1]).status);
    server.stop();
    runner.join();
}

}  // namespace
