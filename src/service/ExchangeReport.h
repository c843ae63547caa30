#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "foundation/Export.h"

namespace postwire {

// What became of one request, or of a connection that was turned away: for logs and counters.
//
// Units: bytes as they were on the wire, chunks and heads included; those of a large request that
//   the server has to begin to read again count once.
struct POSTWIRE_EXPORT ExchangeReport {
    std::string peer;
    int peerPort = 0;
    std::string uri;  // empty where none was read
    int minorVersion = 1;
    std::string userAgent;  // as the client says; empty where it doesn't
    std::string referer;
    int status = 0;  // 0: none was sent
    long long bytesIn = 0;
    long long bytesOut = 0;  // that the system took
    // From the request's first byte to the end of its head, then to that of its body, then the
    // handler's time, then until the system had taken the answer, or the peer was given up.
    std::chrono::microseconds head{0};
    std::chrono::microseconds body{0};
    std::chrono::microseconds handler{0};
    std::chrono::microseconds answer{0};
    // Why the request was refused, or what the handler raised: an HTTPException's code and text, or
    // 0 and a text. Empty for a request that went well.
    long code = 0;
    std::string text;
};

// Called once for each, on a thread of the server that others wait for, from several at once: it
// has to be quick. What it raises is dropped.
using ExchangeObserver = std::function<void(ExchangeReport const&)>;

}  // namespace postwire
