// postwire-serve: receives SOAP messages with attachments and answers what arrived.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <malloc.h>

#include "foundation/QORThrowable.h"

#include "service/Server.h"
#include "tools/common/CommandLineParser.h"
#include "tools/common/StandardStreams.h"
#include "tools/serve/CommandLine.h"
#include "tools/serve/Complaints.h"
#include "tools/serve/MemoryReturn.h"
#include "tools/serve/Signals.h"
#include "tools/serve/Statistics.h"

namespace {

// Left to itself the allocator keeps room for the largest body it has seen, once for each of many
// heaps. Here large bodies go back to the system when their message is done, and there are as many
// heaps as threads can use at a time.
void keepMemoryLow() {
    constexpr int kLarge = 1 << 20;
    ::mallopt(M_MMAP_THRESHOLD, kLarge);
    ::mallopt(M_TRIM_THRESHOLD, 2 * kLarge);
    ::mallopt(M_ARENA_MAX, static_cast<int>(std::max(1U, std::thread::hardware_concurrency())));
}

// Connections stay; where the new files are not good the old ones go on.
void reloadCertificates(postwire::ServerOptions& server) try {
    if (server.tls) server.tls->reload();
} catch (postwire::ServiceError const& e) {
    complain(e.what());
}

void sayReady(postwire::Server const& server) {
    std::string const host = server.address();
    bool const isIPv6 = host.find(':') != std::string::npos;
    std::string const shown = isIPv6 ? "[" + host + "]" : host;
    std::printf("listening on %s:%d\n", shown.c_str(), server.port());
    finishOutput();
}

// The line is printed once requests are served, since nobody finds the port without it.
void serve(CommandLine& line) {
    Signals::block();
    Answers answers(line.answers);
    if (!line.server.traceFolder.empty())
        std::filesystem::create_directories(line.server.traceFolder);
    std::optional<AccessLog> log;
    if (!line.accessLog.empty()) log.emplace(line.accessLog, line.accessLogFormat);
    Statistics statistics;
    MemoryReturn memory;
    postwire::Server* listening = nullptr;
    line.server.complain = [](std::string_view text) { complain(text); };
    line.server.ready = [&listening] { sayReady(*listening); };
    line.server.observe = [&log, &statistics, &memory](postwire::ExchangeReport const& report) {
        statistics.add(report);
        memory.answered(report.bytesIn);
        if (log) log->add(report);
    };
    postwire::Server server(line.server);
    listening = &server;
    auto const stop = [&server] { server.stop(); };
    auto const reload = [&line, &log] {
        reloadCertificates(line.server);
        if (log) log->reopen();
    };
    auto const print = [&] { std::fputs(statistics.text(server.load()).c_str(), stderr); };
    Signals const signals({{SIGTERM, stop}, {SIGINT, stop}, {SIGHUP, reload}, {SIGUSR1, print}});
    server.run([&answers](postwire::Request& request, postwire::Response& response) {
        answers.answer(request, response);
    });
}

int failed(ExitCode code, std::string const& text) {
    return complain("postwire-serve", code, text);
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    CommandLine line;
    if (auto const code = readCommandLine(argc, argv, line)) return *code;
    keepMemoryLow();
    serve(line);
    return static_cast<int>(ExitCode::Done);
} catch (postwire::ServiceError const& e) {
    if (e.code() == postwire::ServiceError::Code::certificate)
        return failed(ExitCode::BadFile, e.what());
    bool const cantListen = e.code() == postwire::ServiceError::Code::address;
    return failed(cantListen ? ExitCode::BadConnection : ExitCode::Otherwise, e.what());
} catch (QORThrowable& e) {
    return failed(ExitCode::Otherwise, e.toString());
} catch (std::system_error const& e) {
    bool const noThread = e.code() == std::errc::resource_unavailable_try_again;
    return failed(noThread ? ExitCode::Otherwise : ExitCode::BadFile, e.what());
} catch (std::invalid_argument const& e) {
    return failed(ExitCode::BadOptions, e.what());
} catch (std::exception const& e) {
    return failed(ExitCode::Otherwise, e.what());
}
