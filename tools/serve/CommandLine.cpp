#include "tools/serve/CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

#include "tools/common/CommandLineParser.h"
#include "tools/common/SentFile.h"

namespace {

// Of a file to answer with, which stands in memory.
constexpr long long kMaxAnswer = 64 << 20;

char const kFooter[] =
    "Prints \"listening on ADDRESS:PORT\" when it is ready. SIGTERM and SIGINT end it: requests\n"
    "under way are finished within the request timeout, no new ones are taken.\n"
    "Exit codes: 0 stopped by a signal, 1 out of memory or threads, 2 bad options,\n"
    "3 a directory or file can't be used, 4 the port can't be listened on.";

// As given, before it is what the server takes.
struct Given {
    double idleSeconds = 60;
    double requestSeconds = 60;
    int maxBody = 64 << 20;
    bool contract = false;
    std::string answer;
    postwire::TlsContext::Server tls;
    std::optional<std::size_t> memory;
    std::string accessLogFormat = "combined";
};

std::chrono::milliseconds milliseconds(double seconds) {
    using Seconds = std::chrono::duration<double>;
    return std::chrono::ceil<std::chrono::milliseconds>(Seconds(seconds));
}

void define(CLI::App& app, CommandLine& line, Given& given) {
    app.footer(kFooter);
    app.add_option("--port", line.server.port, "Port to listen on; 0: any free one")
        ->type_name("PORT")
        ->check(within(0, 65535))
        ->capture_default_str();
    app.add_option("--host", line.server.address,
                   "IPv4 or IPv6 address to listen on; *: all of both kinds")
        ->type_name("ADDRESS")
        ->capture_default_str();
    CLI::Option* const echo =
        app.add_flag("--echo", line.answers.echo, "Answer with the same message, not a receipt");
    app.add_option("--answer", given.answer,
                   "Answer with this file instead of a receipt; text/xml unless a type is given")
        ->type_name("FILE[;type]")
        ->excludes(echo);
    app.add_option("--chunked", line.answers.chunkSize, "Echo in chunks of at most SIZE bytes")
        ->type_name("SIZE")
        ->needs(echo)
        ->check(within(1, 1 << 30));
    app.add_option("--save", line.answers.saveFolder, "Write every part into a file of its own")
        ->type_name("DIR");
    app.add_option("--trace", line.server.traceFolder, "Trace every connection into a file")
        ->type_name("DIR");
    CLI::Option* const log =
        app.add_option(
               "--access-log", line.accessLog,
               "Write a line for each exchange; -: to standard output. Opened anew on SIGHUP")
            ->type_name("FILE");
    app.add_option("--access-log-format", given.accessLogFormat,
                   "combined (and microseconds for head, body, handler, answer) or json")
        ->type_name("FORMAT")
        ->needs(log)
        ->check(oneOf({"combined", "json"}))
        ->capture_default_str();
}

void defineServerLimits(CLI::App& app, CommandLine& line, Given& given) {
    app.add_option("--max-connections", line.server.maxConnections,
                   "Connections at once; one more is answered 503 and closed")
        ->type_name("N")
        ->check(within(1, 1000000))
        ->capture_default_str();
    app.add_option("--per-address", line.server.maxConnectionsOfAddress,
                   "The same for one client's address; 0: no limit of its own")
        ->type_name("N")
        ->check(within(0, 1000000))
        ->capture_default_str();
    app.add_option(
           "--memory", given.memory,
           "For all messages held at once, 503 beyond it; 268435456 or, where that is more, "
           "one of --max-body")
        ->type_name("BYTES")
        ->check(within(std::size_t{65536}, SIZE_MAX));
    app.add_option(
           "--min-rate", line.server.lowestRate,
           "Bytes a second that a client has to send of a request and to take of an answer, "
           "from the tenth second on; 0: any")
        ->type_name("BYTES")
        ->check(within(0, 1 << 30))
        ->capture_default_str();
}

void defineTls(CLI::App& app, Given& given) {
    CLI::Option* const certificate =
        app.add_option("--tls-cert", given.tls.certificate,
                       "Speak TLS, with this certificate and those up to its authority; read again "
                       "on SIGHUP, like the two below")
            ->type_name("FILE");
    app.add_option("--tls-key", given.tls.key, "Its key, where it stands in another file")
        ->type_name("FILE")
        ->needs(certificate);
    app.add_option("--tls-client-ca", given.tls.clientAuthorities,
                   "Take clients alone whose certificate one of these authorities has issued")
        ->type_name("FILE")
        ->needs(certificate);
}

void defineLimits(CLI::App& app, CommandLine& line, Given& given) {
    app.add_option("--workers", line.server.handlers, "Requests that are answered at once")
        ->type_name("N")
        ->check(within(1, 1024))
        ->capture_default_str();
    app.add_option("--idle-timeout", given.idleSeconds, "Longest wait for a request")
        ->type_name("SECONDS")
        ->check(within(0.01, 86400.0))
        ->capture_default_str();
    app.add_option("--request-timeout", given.requestSeconds,
                   "Time for a request to arrive, and again for its answer to be taken; for its "
                   "head at most 10")
        ->type_name("SECONDS")
        ->check(within(0.01, 86400.0))
        ->capture_default_str();
    app.add_flag(
        "--contract", given.contract,
        "For peers that are trusted: read requests leniently, as the library does by default; "
        "each part needs a length or chunks, and one request is taken a connection");
    app.add_option("--max-body", given.maxBody, "Largest body taken, all parts together")
        ->type_name("BYTES")
        ->check(within(0, INT_MAX))
        ->capture_default_str();
}

// By the contract a request is bounded by its number of lines and parts alone, and where it ends is
// not safe to tell.
void setPolicy(postwire::ServerOptions& server, Given const& given) {
    HTTPReadPolicy& policy = server.policy;
    if (given.contract) {
        HTTPReadPolicy const hardened = policy;
        policy = {};
        policy.maxLine = hardened.maxLine;
        policy.maxHead = hardened.maxHead;
        policy.maxHeaders = hardened.maxHeaders;
        policy.maxParts = hardened.maxParts;
        policy.maxPartHead = hardened.maxPartHead;
        policy.maxChunkFraming = hardened.maxChunkFraming;
        policy.maxChunkFramingRatio = hardened.maxChunkFramingRatio;
        server.keepAlive = false;
    }
    policy.maxBody = std::max(given.maxBody, 1);  // 0 would be no limit
}

void setLimits(postwire::ServerOptions& server, Given const& given) {
    server.idleLimit = milliseconds(given.idleSeconds);
    server.requestLimit = server.answerLimit = milliseconds(given.requestSeconds);
    server.headLimit = std::min(server.headLimit, server.requestLimit);
    // One body of the largest size fits.
    auto const largest = static_cast<std::size_t>(given.maxBody) + (std::size_t{1} << 20);
    server.bodyBudget = given.memory.value_or(std::max(server.bodyBudget, largest));
}

// The socket that the one who started this program listens on already, for it or its successor:
// the protocol of systemd, whose first descriptor is 3. -1: none.
int handedOver() {
    constexpr int kFirst = 3;
    char const* const process = std::getenv("LISTEN_PID");
    char const* const count = std::getenv("LISTEN_FDS");
    if (!process || !count || std::to_string(::getpid()) != process) return -1;
    if (std::string(count) != "1")
        throw std::invalid_argument("LISTEN_FDS is " + std::string(count) + ", not 1");
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    if (::fcntl(kFirst, F_SETFD, FD_CLOEXEC) == -1)
        throw std::system_error(errno, std::generic_category(), "the socket handed over");
    return kFirst;
}

void readAnswer(std::string const& given, AnswerOptions& answers) {
    std::size_t const end = std::min(given.find(';'), given.size());
    std::string const type = given.substr(std::min(end + 1, given.size()));
    SentFile const file =
        describeFile(given.substr(0, end), type.empty() ? "text/xml; charset=utf-8" : type, "");
    if (file.size > kMaxAnswer) throw std::system_error(EFBIG, std::generic_category(), file.path);
    std::ifstream stream(file.path, std::ios::binary);
    if (!stream) throw std::system_error(errno, std::generic_category(), file.path);
    std::ostringstream content;
    if (file.size > 0) content << stream.rdbuf();
    answers.body = content.str();
    answers.type = file.type;
}

}  // namespace

std::optional<int> readCommandLine(int argc, char const* const* argv, CommandLine& line) {
    CommandLineParser parser("postwire-serve",
                             "Receives SOAP messages with attachments and answers what arrived.");
    Given given;
    line.server.handlers = 16;
    line.server.address = "0.0.0.0";
    define(parser.app(), line, given);
    defineTls(parser.app(), given);
    defineLimits(parser.app(), line, given);
    defineServerLimits(parser.app(), line, given);
    if (auto const code = parser.parse(argc, argv)) return code;
    if (line.server.address == "*") line.server.address.clear();
    if (given.accessLogFormat == "json") line.accessLogFormat = AccessLog::Format::json;
    line.server.descriptor = handedOver();
    setPolicy(line.server, given);
    setLimits(line.server, given);
    if (given.tls.key.empty()) given.tls.key = given.tls.certificate;
    if (!given.tls.certificate.empty()) line.server.tls = postwire::TlsContext::server(given.tls);
    if (!given.answer.empty()) readAnswer(given.answer, line.answers);
    return {};
}
