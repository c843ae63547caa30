// A server on an open port: it counts the parts of each request, and sends them back as attachments
// where it is asked to.
#include "service/Server.h"

int main() {
    postwire::Server server(8080);
    server.run([](postwire::Request& request, postwire::Response& response) {
        HTTPMessage& message = request.message();
        std::string const text = "<parts>" + std::to_string(message.num_parts()) + "</parts>";
        if (request.uri() != "/back") return response.send(200, "text/xml", text);
        response.multipart(200);
        response.addPart("text/xml", "<root>", text);
        for (int i = 0; i < message.num_parts(); ++i)
            response.addPart("application/octet-stream", "",
                             {message.getPart(i)->contentBytes(),
                              static_cast<std::size_t>(message.getPart(i)->contentSize())});
    });
}
