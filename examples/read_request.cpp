#include <cstdio>
#include <string>

#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPMessageReader.h"

int main() {
    std::string const wire = "POST /greet HTTP/1.1\r\nContent-Length: 5\r\n\r\nHello";
    ZULMemoryInputStream bytes(wire.data(), static_cast<int>(wire.size()));
    ZULBufferedInputStream stream(bytes, 4096);
    HTTPMessageReader reader(stream);
    HTTPMessage request;
    std::string uri;
    reader.getRequest(&request, &uri);
    std::printf("%s: %.*s\n", uri.c_str(), request.contentSize(), request.contentBytes());
}
