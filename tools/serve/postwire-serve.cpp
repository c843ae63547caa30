// postwire-serve: receives SOAP messages with attachments and answers what arrived.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <CLI/CLI.hpp>
#include <malloc.h>

#include "foundation/QORThrowable.h"

#include "tools/common/BlockReader.h"
#include "tools/common/SentFile.h"
#include "tools/common/StandardStreams.h"
#include "tools/serve/Server.h"
#include "tools/serve/StopSignals.h"

namespace {

enum ExitCode : int { kStopped, kFailed, kBadUsage, kBadFile, kCantListen };

// Of a file to answer with, which stands in memory.
constexpr long long kMaxAnswer = 64 << 20;

char const kFooter[] =
    "Prints \"listening on 0.0.0.0:PORT\" when it is ready. SIGTERM and SIGINT end it: requests\n"
    "under way are finished within the request timeout, no new ones are taken.\n"
    "Exit codes: 0 stopped by a signal, 1 out of memory or threads, 2 bad options,\n"
    "3 a directory or file can't be used, 4 the port can't be listened on.";

struct CommandLine {
    ServerOptions options;
    double idleSeconds = 60;
    double requestSeconds = 60;
    std::string answer;
};

template <class Number>
CLI::Validator within(Number low, Number high) {
    return CLI::Range(low, high).description("");
}

void define(CLI::App& app, CommandLine& line) {
    ServerOptions& options = line.options;
    app.set_version_flag("--version", "postwire-serve " POSTWIRE_VERSION);
    app.footer(kFooter);
    app.add_option("--port", options.port, "Port to listen on, all interfaces; 0: any free one")
        ->type_name("PORT")
        ->check(within(0, 65535))
        ->capture_default_str();
    CLI::Option* const echo = app.add_flag(
        "--echo", options.echo,
        "Answer with the same message instead of a receipt; quotes around header values are lost");
    app.add_option("--answer", line.answer,
                   "Answer with this file instead of a receipt; text/xml unless a type is given")
        ->type_name("FILE[;type]")
        ->excludes(echo);
    app.add_option("--chunked", options.chunkSize, "Echo in chunks of at most SIZE bytes")
        ->type_name("SIZE")
        ->needs(echo)
        ->check(within(1, 1 << 30));
    app.add_option("--save", options.saveDirectory, "Write every part into a file of its own")
        ->type_name("DIR");
    app.add_option("--trace", options.traceDirectory, "Trace every connection into a file")
        ->type_name("DIR");
}

void defineLimits(CLI::App& app, CommandLine& line) {
    app.add_option("--workers", line.options.workers, "Connections that are served at once")
        ->type_name("N")
        ->check(within(1, 1024))
        ->capture_default_str();
    app.add_option("--idle-timeout", line.idleSeconds, "Longest wait for a request")
        ->type_name("SECONDS")
        ->check(within(0.01, 86400.0))
        ->capture_default_str();
    app.add_option("--request-timeout", line.requestSeconds,
                   "Time for a request to arrive, and again for its answer to be taken")
        ->type_name("SECONDS")
        ->check(within(0.01, 86400.0))
        ->capture_default_str();
    app.add_flag("--contract", line.options.contract,
                 "Read as the library does by default, without its policy for peers that are not\n"
                 "trusted: lengths that parts lack are missed, lenient forms are taken");
    app.add_option("--max-body", line.options.maxBody, "Largest body taken, all parts together")
        ->type_name("BYTES")
        ->check(within(0, INT_MAX))
        ->capture_default_str();
}

void readAnswer(CommandLine& line) {
    std::size_t const end = std::min(line.answer.find(';'), line.answer.size());
    std::string const type = line.answer.substr(std::min(end + 1, line.answer.size()));
    SentFile const file = describeFile(line.answer.substr(0, end),
                                       type.empty() ? "text/xml; charset=utf-8" : type, "");
    if (file.size > kMaxAnswer) throw std::system_error(EFBIG, std::generic_category(), file.path);
    std::ifstream stream(file.path, std::ios::binary);
    if (!stream) throw std::system_error(errno, std::generic_category(), file.path);
    for (BlockReader block(stream); block.next();)
        line.options.answer.append(block.bytes(), block.size());
    line.options.answerType = file.type;
}

// Left to itself the allocator keeps room for the largest body it has seen, once for each of many
// heaps. Here large bodies go back to the system when their message is done, and there are as many
// heaps as threads can use at a time.
void keepMemoryLow() {
    constexpr int kLarge = 1 << 20;
    ::mallopt(M_MMAP_THRESHOLD, kLarge);
    ::mallopt(M_TRIM_THRESHOLD, 2 * kLarge);
    ::mallopt(M_ARENA_MAX, static_cast<int>(std::max(1U, std::thread::hardware_concurrency())));
}

int serve(ServerOptions const& options) {
    StopSignals signals;
    Server server(options);
    server.start();
    std::printf("listening on 0.0.0.0:%d\n", server.port());
    finishOutput();  // without the line nobody finds the port
    // Requests that did not finish in time are cut off, and their threads with them.
    if (!server.run(signals)) std::_Exit(kStopped);
    return kStopped;
}

int complained(int code, std::string const& text) {
    Server::complain(text);
    return code;
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    CLI::App app("Receives SOAP messages with attachments and answers what arrived.");
    CommandLine line;
    define(app, line);
    defineLimits(app, line);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? kStopped : kBadUsage;
    }
    line.options.idleTimeout = Deadline::seconds(line.idleSeconds);
    line.options.requestTimeout = Deadline::seconds(line.requestSeconds);
    if (!line.answer.empty()) readAnswer(line);
    keepMemoryLow();
    return serve(line.options);
} catch (SoapSocketException& e) {
    return complained(kCantListen, std::string("can't listen: ") + e.getDetails());
} catch (QORThrowable& e) {
    return complained(kCantListen, e.toString());
} catch (std::system_error& e) {
    bool const noThread = e.code() == std::errc::resource_unavailable_try_again;
    return complained(noThread ? kFailed : kBadFile, e.what());
} catch (std::invalid_argument& e) {
    return complained(kBadUsage, e.what());
} catch (std::exception& e) {
    return complained(kFailed, e.what());
}
