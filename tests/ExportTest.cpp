#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/ZULMemoryInputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

#include "foundation/HTTPException.h"
#include "foundation/StringTokenizer.h"
#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"
#include "socket/SoapSocket.h"

// A program that knows the installed headers alone: what the writers send over the public streams
// the reader takes back, and the library's exceptions are caught outside it.
int main() {
    ZULMemoryOutputStream wire(1000, 1000);
    OnePieceHttpMsg writer(wire, 0);
    writer.startResponse(200, "OK");
    writer.write("Hello", 5);
    writer.finish();

    ZULMemoryInputStream bytes(wire.bytes(), wire.length());
    ZULBufferedInputStream stream(bytes, 4096);
    HTTPMessageReader reader(stream);
    HTTPMessage response;
    HTTPMessage::StatusCode status;
    std::string text;
    reader.getResponse(&response, &status, &text);
    bool ok = status == 200 && text == "OK" && response.contentSize() == 5 &&
              std::memcmp(response.contentBytes(), "Hello", 5) == 0;
    try {
        reader.getResponse(&response, &status, &text);
        ok = false;
    } catch (HTTPException const& e) {
        ok = ok && e.getMessage() != nullptr;
    }

    QORStringTokenizer tokens("one", ",", 0);
    tokens.nextToken();
    try {
        tokens.nextToken();
        ok = false;
    } catch (NoSuchElementExceptionST const&) {
    }
    SoapServerSocket server;
    return ok && !server.getInputStream()->canUnread() ? 0 : 1;
}
