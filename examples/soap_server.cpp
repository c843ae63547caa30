#include <cstdio>

#include "service/Server.h"

int main() {
    postwire::Server server(0);
    std::fprintf(stderr, "http://127.0.0.1:%d/\n", server.port());
    server.run([](postwire::Request& request, postwire::Response& response) {
        int const count = request.message().num_parts();
        std::string const text = "<parts>" + std::to_string(count) + "</parts>";
        if (count == 0) return response.send(200, "text/xml", text);
        response.multipart(200);
        response.addPart("text/xml", "<root>", text);
        response.addPart("text/plain", "<uri>", request.uri());
    });
}
