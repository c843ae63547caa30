#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

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

static void endWait(void*) { throw std::runtime_error("a client sent nothing for 10 seconds"); }

static void serve(SoapSocket& connection) {
    connection.setTimeLimitCallback(endWait, nullptr, 10000);
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
}

template <class Step>
static void reportFailuresOf(Step step) try {
    step();
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
} catch (SoapSocketException& e) {
    std::fprintf(stderr, "%s\n", e.getDetails());
} catch (std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
}

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    SoapServerSocket server;
    server.Open(0);
    std::fprintf(stderr, "http://127.0.0.1:%d/\n", server.m_boundPort);
    auto const acceptOne = [&server] {
        auto const connection = std::make_shared<SoapSocket>(server.AwaitCommunicationAttempt());
        std::thread([connection] {
            reportFailuresOf([&connection] { serve(*connection); });
        }).detach();
    };
    for (;;) reportFailuresOf(acceptOne);
}
