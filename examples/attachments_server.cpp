// A server that sends back, decoded, what came along with an envelope.
#include <iostream>

#include "service/Attachments.h"
#include "service/Server.h"

int main(int argc, char** argv) {
    postwire::Server server(argc > 1 ? std::stoi(argv[1]) : 8080);
    std::cout << server.port() << std::endl;
    server.run([](postwire::Request& request, postwire::Response& response) {
        postwire::Attachments const came(request);
        if (came.soapVersion() == postwire::SoapVersion::none) return response.send(415, {}, {});
        postwire::OutgoingMessage answer(came.soapVersion(), came.root().decoded());
        answer.setMtom(came.isMtom());
        for (postwire::Attachment const& part : came.all())
            answer.attach({part.decoded(), std::string(part.type().value()),
                           std::string(part.contentId()), part.location(), part.fileName()});
        response.send(200, answer);
    });
}
