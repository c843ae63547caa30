// catch_ladder FILE...: reads a request from each file and says what a server would answer, and
// why; 0 where nobody is left to be answered.

#include <cstdio>
#include <fstream>
#include <new>
#include <sstream>
#include <string>

#include "foundation/QORThrowable.h"
#include "foundation/ZULMemoryInputStream.h"
#include "foundation/ZULStreamException.h"

#include "foundation/HTTPException.h"
#include "parser/HTTPMessageReader.h"
#include "socket/SoapSocket.h"

namespace {

struct Verdict {
    int status;
    std::string reason;
};

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

// Derived types come before their bases.
Verdict judge(HTTPMessageReader& reader, HTTPMessage& request) try {
    std::string uri;
    reader.getRequest(&request, &uri);
    return {200, uri};
} catch (HTTPException const& e) {
    // An end within the head, or between messages: a peer that has closed.
    bool const ended = e.getCode() == HTTPException::HTTP_ERR_END_OF_STREAM;
    return {ended ? 0 : HTTPPolicyException::getHttpStatus(e), textOf(e)};
} catch (ZULStreamException const& e) {  // without a policy: a body cut short, malformed chunks
    return {400, textOf(e)};
} catch (QORAssertError const& e) {  // without a policy: a length beside chunks, nesting too deep
    return {400, textOf(e)};
} catch (QOROutOfMemoryError const& e) {  // bodies, parts
    return {503, textOf(e)};
} catch (std::bad_alloc const&) {  // header fields and texts
    return {503, "out of memory"};
} catch (SoapSocketException& e) {  // no QORThrowable, no std::exception
    return {0, e.getDetails()};
} catch (QORThrowable& e) {  // a fault of this program: all that is known of it
    return {500, e.toString()};
} catch (std::exception const& e) {  // what your streams, handlers and callbacks raise
    return {500, e.what()};
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ostringstream file;
        file << std::ifstream(argv[i], std::ios::binary).rdbuf();
        std::string const wire = file.str();
        ZULMemoryInputStream bytes(wire.data(), static_cast<int>(wire.size()));
        ZULBufferedInputStream in(bytes, 4096);
        HTTPMessageReader reader(in);
        reader.setReadPolicy(HTTPReadPolicy::hardened());
        HTTPMessage request;
        Verdict const verdict = judge(reader, request);
        std::printf("%d %s\n", verdict.status, verdict.reason.c_str());
    }
}
