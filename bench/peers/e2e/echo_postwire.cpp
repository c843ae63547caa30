// echo_postwire PORT REQUEST_BODY_BYTES: postwire::Server with its defaults. A handler sleeps 20 ms
// for /sleep and computes for 200 us for /compute.
#include <ctime>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "service/Server.h"

static long threadTime() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    int const expected = std::atoi(argv[2]);
    std::string const answer(1024, 'x');
    postwire::ServerOptions options;
    options.address = "127.0.0.1";
    options.port = std::atoi(argv[1]);
    postwire::Server server(options);
    server.run([&](postwire::Request& request, postwire::Response& response) {
        if (request.uri() == "/sleep") std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (request.uri() == "/compute") {
            for (long const end = threadTime() + 200; threadTime() < end;) {
            }
        }
        bool const good = request.message().contentSize() == expected;
        response.send(good ? 200 : 400, "text/xml; charset=utf-8", answer);
    });
}
