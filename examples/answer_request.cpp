// answer_request PORT [CONNECTIONS]: answers every request with a few words on what it brought.
//
// PORT 0 lets the system choose; the port is printed either way. After CONNECTIONS connections, one
// after the other, the program ends. Try it with
//   curl --data-binary @some-file http://127.0.0.1:PORT/

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULBufferedOutputStream.h"

#include "foundation/HTTPException.h"
#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"
#include "socket/SoapSocket.h"

namespace {

// Reads and answers until the client closes. Reader and writer live as long as the connection: the
// reader keeps what it has read beyond a message, the writer its buffers.
void serve(int descriptor) {
    SoapSocket connection(descriptor);
    ZULBufferedInputStream in(*connection.getInputStream(), 4096);
    HTTPMessageReader reader(in);
    // Between the node and the socket, so that start line, headers and body leave in one send.
    ZULBufferedOutputStream out(*connection.getOutputStream(), 65536);
    OnePieceHttpMsg answer(out, 0);  // 0: with Content-Length; above 0: in chunks of that size
    HTTPMessage request;
    std::string uri;
    for (;;) {
        reader.getRequest(&request, &uri);
        std::string const words = std::to_string(request.contentSize()) + " bytes and " +
                                  std::to_string(request.num_parts()) + " parts for " + uri + "\n";
        answer.startResponse(200, "OK");
        answer.setHeader("Content-Type", "text/plain; charset=utf-8");
        answer.write(words.data(), static_cast<int>(words.size()));
        answer.finish();
        out.flush();
    }
}

}  // namespace

int main(int argc, char** argv) try {
    std::signal(SIGPIPE, SIG_IGN);  // a client that goes away is an exception, not the end of us
    SoapServerSocket server;
    server.Open(argc > 1 ? static_cast<int>(std::strtol(argv[1], nullptr, 10)) : 0);
    std::printf("%d\n", server.m_boundPort);
    std::fflush(stdout);
    long connections = argc > 2 ? std::strtol(argv[2], nullptr, 10) : -1;
    for (; connections != 0; connections -= connections > 0) {
        try {
            serve(server.AwaitCommunicationAttempt());
        } catch (HTTPException& e) {
            if (e.getCode() != HTTPException::HTTP_ERR_END_OF_STREAM)
                std::fprintf(stderr, "%s\n", e.toString());
        } catch (SoapSocketException& e) {
            std::fprintf(stderr, "%s\n", e.getDetails());
        }
    }
    return 0;
} catch (QORThrowable& e) {
    std::fprintf(stderr, "%s\n", e.toString());
    return 1;
} catch (SoapSocketException& e) {
    std::fprintf(stderr, "%s\n", e.getDetails());
    return 1;
}
