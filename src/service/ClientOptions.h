#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Export.h"

#include "parser/HTTPMsgHandler.h"
#include "parser/HTTPReadPolicy.h"
#include "service/Cancellation.h"

namespace postwire {

// What a Client is told before its first exchange; every limit has a default.
//
// Units: bytes, counts, milliseconds.
// Rule: a client copies its options; what is changed afterwards changes nothing.
struct POSTWIRE_EXPORT ClientOptions {
    // From the call to a connection over which the message can be sent: name, address, proxy and
    // TLS together.
    std::chrono::milliseconds connectLimit{30000};
    // From the message's last byte to the end of the answer's head.
    std::chrono::milliseconds headLimit{60000};
    // From the call to the answer's last byte.
    std::chrono::milliseconds exchangeLimit{3600000};
    // Bytes a second of the message that the server takes, and of the answer that it gives, on
    // average; looked at from the tenth second on. 0: none.
    int lowestRate = 100;

    // Larger bodies, and those of unknown size, are sent when the server has said "100 Continue",
    // or nothing for so long.
    std::uint64_t continueAbove = 1 << 20;
    std::chrono::milliseconds continueLimit{1000};

    // Connections that wait for the next message: for each origin, in all, and for how long. Where
    // none is kept, requests say "Connection: close".
    int keptOfOrigin = 8;
    int kept = 64;
    std::chrono::milliseconds keptFor{30000};

    // "http://[user:password@]host[:port]"; empty: none.
    std::string proxy;
    // Where none is named: as http_proxy, https_proxy and no_proxy say, in lower case.
    bool proxyFromEnvironment = false;

    // How answers are read. Those that go to files or to a handler may have bodies of any size.
    HTTPReadPolicy policy = HTTPReadPolicy::hardened();

    // The addresses of a name, as texts, instead of the system's.
    std::function<std::vector<std::string>(std::string const&)> resolve;

    // Asked for each new connection: descriptors of empty files for the trace of what is sent and
    // received, and for the times of that; -1: none. They are the client's from then on.
    struct Trace {
        int bytes = -1;
        int times = -1;
    };
    std::function<Trace()> openTrace;
};

// How far an exchange has come.
struct ClientProgress {
    std::uint64_t sent = 0;               // of the message's body
    std::optional<std::uint64_t> toSend;  // its size, where that is known
    bool allSent = false;                 // it waits for the answer, or reads it
    std::uint64_t received = 0;           // of the answer, its head included
};

// One call of a client.
//
// Ownership: handler and cancellation are borrowed until the call returns.
struct POSTWIRE_EXPORT PostOptions {
    // Header lines of the request, beside those that the client and the message make.
    std::vector<std::pair<std::string, std::string>> fields;

    // The server may get the message twice: where a kept connection turns out to be closed, the
    // message is sent again over a new one, also if some of it was sent already.
    bool repeatable = false;

    // An answer whose status is not 2xx is an error.
    bool raiseForStatus = false;

    // Gets the answer's events instead of the tree.
    HTTPMsgHandler* handler = nullptr;

    // A folder that gets the answer's body, or one file for the body of each part, named by their
    // number and never by what the server says; none is overwritten. The tree has the heads then.
    std::string saveTo;

    // Called on the thread of the call, at most once for each block of 64 KiB; what it raises ends
    // the exchange and passes through.
    std::function<void(ClientProgress const&)> progress;

    Cancellation const* cancellation = nullptr;

    // Instead of the client's exchangeLimit.
    std::optional<std::chrono::milliseconds> limit;
};

}  // namespace postwire
