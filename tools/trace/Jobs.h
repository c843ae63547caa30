#pragma once

#include <cstdint>
#include <string>

#include "tools/trace/Conversation.h"

// What postwire-trace can be told to do.
struct Options {
    std::string trace;
    std::string role = "guess";
    std::string out;
    bool follow = false;
    std::uint64_t from = 1, count = 0;  // messages; 0: all
    std::uint64_t message = 0;
    std::string part;  // as "2.1"
    std::string clientAddress = "127.0.0.1", serverAddress = "127.0.0.1";
    std::uint16_t clientPort = 49152, serverPort = 80;
};

Conversation::Role roleOf(Options const& options);

// Each gives what is to be said of the trace behind its end, line by line; empty for one in order.
std::string show(Options const& options);
std::string stats(Options const& options);
std::string html(Options const& options);
std::string capture(Options const& options);
std::string writeBody(Options const& options);

// What is to be said of a trace that a cursor has gone through: that it is cut, or that its times
// are another's.
std::string complaintOf(TraceCursor const& cursor, std::string const& path);

// "12.345678 s".
std::string seconds(Microseconds span);
