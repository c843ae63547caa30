#pragma once

#include <optional>
#include <string>

#include "service/ServerOptions.h"
#include "tools/serve/AccessLog.h"
#include "tools/serve/Answers.h"

// What the program was told.
struct CommandLine {
    postwire::ServerOptions server;
    AnswerOptions answers;
    std::string accessLog;  // empty: none
    AccessLog::Format accessLogFormat = AccessLog::Format::combined;
};

// Reads the options; the code to return at once in place of them, see CommandLineParser.
//
// A listening socket that was handed over, as LISTEN_FDS says, comes before host and port.
//
// Raises: std::system_error for a file that can't be read, std::invalid_argument for what is no
//   content type, postwire::ServiceError for a certificate that can't be used.
std::optional<int> readCommandLine(int argc, char const* const* argv, CommandLine& line);
