#include <csignal>
#include <cstdio>
#include <string>

#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"
#include "socket/SoapSocket.h"

static void addPart(MultipartHttpMsg& answer, char const* type, std::string const& text) {
    OnePieceHttpMsg* const part = answer.addOnePiece(0);
    part->reset();
    part->setHeader("Content-Type", type);
    part->write(text.data(), static_cast<int>(text.size()));
    answer.endPart(part);
}

static void serve(int descriptor) try {
    SoapSocket connection(descriptor);
    ZULBufferedInputStream in(*connection.getInputStream(), 4096);
    HTTPMessageReader reader(in);
    reader.setReadPolicy(HTTPReadPolicy::hardened());
    HTTPMessage request;
    std::string uri;
    reader.getRequest(&request, &uri);
    MultipartHttpMsg answer(*connection.getOutputStream(), 0, "answer-part");
    answer.startResponse(200, "OK");
    answer.setHeader("Connection", "close");
    addPart(answer, "text/xml",
            "<Envelope xmlns=\"http://schemas.xmlsoap.org/soap/envelope/\"><Body/></Envelope>");
    addPart(answer, "text/plain", std::to_string(request.num_parts()) + " parts for " + uri + "\n");
    answer.finish();
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
} catch (SoapSocketException& e) {
    std::fprintf(stderr, "%s\n", e.getDetails());
}

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    SoapServerSocket server;
    server.Open(0);
    std::fprintf(stderr, "http://127.0.0.1:%d/\n", server.m_boundPort);
    for (;;) serve(server.AwaitCommunicationAttempt());
}
