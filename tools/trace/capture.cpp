#include <cstdio>

#include <arpa/inet.h>

#include "tools/trace/Jobs.h"
#include "tools/trace/PcapFile.h"

namespace {

constexpr std::size_t kPiece = 1 << 16;

PcapEndpoint endpoint(std::string const& address, std::uint16_t port) {
    in_addr parsed{};
    inet_pton(AF_INET, address.c_str(), &parsed);
    return {ntohl(parsed.s_addr), port};
}

}  // namespace

std::string capture(Options const& options) {
    TraceFile file(options.trace, false);
    Conversation conversation(file, roleOf(options), {});
    bool const isServer = conversation.isServer();
    TraceCursor cursor(file);
    bool more = cursor.next();
    PcapFile out(options.out, endpoint(options.clientAddress, options.clientPort),
                 endpoint(options.serverAddress, options.serverPort),
                 more ? cursor.record().time : kNoTime);
    for (; more; more = cursor.next()) {
        bool const fromClient = cursor.record().read == isServer;
        while (cursor.left() > 0) {
            std::string_view const bytes = cursor.take(kPiece);
            bool const ends = cursor.left() == 0 || bytes.empty();
            out.write(fromClient, bytes, ends, cursor.record().time);
            if (bytes.empty()) break;  // the last one is cut short
        }
    }
    out.finish();
    return complaintOf(cursor, options.trace);
}
