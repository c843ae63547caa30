// post_with_attachments HOST PORT FILE...: posts a SOAP envelope with files as attachments and
// prints the answer.
//
// Nothing is held in memory but one block: the message is chunked, and each block of a file goes
// to the socket from where it was read.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"
#include "socket/SoapSocket.h"

namespace {

char const kEnvelope[] =
    "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body/>"
    "</soap:Envelope>";

// No line of an attachment may begin with "--" and this text. Letters, digits and '-' alone: the
// header is written without quotes.
char const kBoundary[] = "post-with-attachments-6f1b2c9e";

void addEnvelope(MultipartHttpMsg& message) {
    OnePieceHttpMsg* const part = message.addOnePiece(0);  // small: held, with Content-Length
    part->setHeader("Content-Type", "text/xml; charset=utf-8");
    part->write(kEnvelope, sizeof kEnvelope - 1);
    message.endPart(part);
}

void addFile(MultipartHttpMsg& message, std::string const& path) {
    auto const size = std::filesystem::file_size(path);
    // -1: each block one chunk of the message. Without a block such a part would have no header.
    OnePieceHttpMsg* const part = message.addOnePiece(size > 0 ? -1 : 0);
    part->setHeader("Content-Type", "application/octet-stream");
    part->setHeader("Content-Location", path.c_str());
    // A direct part declares no length of its own accord; a reader that does not look for
    // boundaries within bodies needs one.
    part->setHeader("Content-Length", std::to_string(size).c_str());
    std::ifstream file(path, std::ios::binary);
    std::vector<char> block(65536);
    while (file) {
        file.read(block.data(), static_cast<std::streamsize>(block.size()));
        if (file.gcount() > 0) part->write(block.data(), static_cast<int>(file.gcount()));
    }
    message.endPart(part);
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s HOST PORT FILE...\n", argv[0]);
        return 2;
    }
    std::signal(SIGPIPE, SIG_IGN);
    SoapSocket connection;
    connection.SetServerHostInfo(argv[1]);
    connection.Open(static_cast<int>(std::strtol(argv[2], nullptr, 10)));

    MultipartHttpMsg message(*connection.getOutputStream(), 4096, kBoundary);
    message.startRequest("/", 0);
    message.setHeader("SOAPAction", "\"\"");
    addEnvelope(message);
    for (int i = 3; i < argc; ++i) addFile(message, argv[i]);
    message.finish();

    ZULBufferedInputStream in(*connection.getInputStream(), 4096);
    HTTPMessageReader reader(in);
    HTTPMessage answer;
    HTTPMessage::StatusCode status{};
    std::string reason;
    reader.getResponse(&answer, &status, &reason);
    std::printf("%d %s\n%.*s", static_cast<int>(status), reason.c_str(), answer.contentSize(),
                answer.contentSize() > 0 ? answer.contentBytes() : "");
    return 0;
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
    return 1;
} catch (SoapSocketException& e) {
    std::fprintf(stderr, "%s\n", e.getDetails());
    return 1;
} catch (std::exception const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
