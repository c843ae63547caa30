#include "tools/trace/Jobs.h"

#include <cstdio>

Conversation::Role roleOf(Options const& options) {
    using Role = Conversation::Role;
    if (options.role == "guess") return Role::Guess;
    return options.role == "client" ? Role::Client : Role::Server;
}

std::string seconds(Microseconds span) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(span) / 1e6);
    return text;
}

std::string complaintOf(TraceCursor const& cursor, std::string const& path) {
    std::string text;
    if (cursor.missing() < 0) text = path + ": ends inside the line before a block\n";
    if (cursor.missing() > 0)
        text = path + ": the last block lacks " + std::to_string(cursor.missing()) + " bytes\n";
    if (cursor.times().areOfAnother()) text += path + ".times: does not belong to the trace\n";
    return text;
}
