// Shows what a socket trace holds, counts it, and turns it into a capture file.

#include <csignal>
#include <iostream>
#include <string>

#include <arpa/inet.h>

#include "tools/common/CommandLineParser.h"
#include "tools/common/StandardStreams.h"
#include "tools/trace/Jobs.h"

namespace {

constexpr char kProgram[] = "postwire-trace";
constexpr std::uint64_t kMany = 1ULL << 62;

using Job = std::string (*)(Options const&);

CLI::Validator address() {
    auto const check = [](std::string const& text) -> std::string {
        in_addr parsed{};
        if (inet_pton(AF_INET, text.c_str(), &parsed) == 1) return {};
        return "'" + text + "' is no IPv4 address";
    };
    return {check, "", ""};
}

void defineRange(CLI::App& app, Options& options) {
    app.add_option("--from", options.from, "The first message to be shown")
        ->type_name("NUMBER")
        ->check(within(std::uint64_t{1}, kMany))
        ->capture_default_str();
    app.add_option("--count", options.count, "How many messages to show at most")
        ->type_name("NUMBER")
        ->check(within(std::uint64_t{1}, kMany));
}

void defineEndpoint(CLI::App& app, std::string const& side, std::string& host,
                    std::uint16_t& port) {
    app.add_option("--" + side + "-address", host, "IPv4 address to show")
        ->type_name("ADDRESS")
        ->check(address())
        ->capture_default_str();
    app.add_option("--" + side + "-port", port, "Port to show; Wireshark reads 80 as HTTP")
        ->type_name("PORT")
        ->check(within(1, 65535))
        ->capture_default_str();
}

void define(CLI::App& app, Options& options, Job& job) {
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done, 2 bad options, 3 the trace can't be read or is none, or the\n"
        "output can't be written.");
    auto const command = [&](char const* name, char const* text, Job run) {
        CLI::App* const sub = app.add_subcommand(name, text)->group("Commands");
        sub->add_option("TRACE", options.trace, "The trace file")->required();
        sub->add_option("--role", options.role, "Which side wrote it: client, server or guess")
            ->type_name("ROLE")
            ->check(oneOf({"client", "server", "guess"}))
            ->capture_default_str();
        sub->callback([&job, run] { job = run; });
        return sub;
    };
    CLI::App* const toShow = command("show", "Print the exchange message by message", show);
    toShow->add_flag("--follow", options.follow, "Go on until the trace is closed by its writer");
    defineRange(*toShow, options);
    command("stats", "Count messages, bytes and calls", stats);
    CLI::App* const toHtml = command("html", "Write a page to look at in a browser", html);
    toHtml->add_option("OUT", options.out, "The page to write; -: standard output")->required();
    defineRange(*toHtml, options);
    CLI::App* const toPcap = command("pcap", "Write a capture file for Wireshark", capture);
    toPcap->add_option("OUT", options.out, "The capture file to write; -: standard output")
        ->required();
    defineEndpoint(*toPcap, "client", options.clientAddress, options.clientPort);
    defineEndpoint(*toPcap, "server", options.serverAddress, options.serverPort);
    CLI::App* const toBody = command("body", "Print a body as it is", writeBody);
    toBody->add_option("MESSAGE", options.message, "The number of the message")
        ->required()
        ->check(within(std::uint64_t{1}, kMany));
    toBody->add_option("PART", options.part, "The part, as 2.1: the first of the second");
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN);  // a capture that reaches the limit for files is reported
    Options options;
    Job job = nullptr;
    CommandLineParser parser(kProgram, "Reads the trace file of a postwire socket.");
    define(parser.app(), options, job);
    if (auto const code = parser.parse(argc, argv)) return *code;
    std::string const complaint = job(options);
    finishOutput();
    std::cerr << complaint;
    return static_cast<int>(ExitCode::Done);
} catch (std::exception const& e) {
    return complain(kProgram, ExitCode::BadFile, e.what());
}
