// Shows what a socket trace holds, counts it, and turns it into a capture file.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <string>

#include <arpa/inet.h>

#include "tools/common/CommandLineParser.h"
#include "tools/common/MessageSummary.h"
#include "tools/common/StandardStreams.h"
#include "tools/common/TextEscapes.h"
#include "tools/trace/Conversation.h"
#include "tools/trace/PcapFile.h"
#include "tools/trace/TraceFile.h"

namespace {

constexpr char kProgram[] = "postwire-trace";
constexpr std::size_t kShown = 60;  // bytes of a body that show prints

struct Options {
    std::string trace;
    std::string role = "guess";
    std::string out;
    std::string clientAddress = "127.0.0.1", serverAddress = "127.0.0.1";
    std::uint16_t clientPort = 49152, serverPort = 80;
};

Conversation::Role roleOf(Options const& options) {
    using Role = Conversation::Role;
    return options.role == "client"   ? Role::Client
           : options.role == "server" ? Role::Server
                                      : Role::Guess;
}

void printHead(std::string_view head) {
    while (!head.empty()) {
        std::string_view const line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(head.size(), line.size() + 1));
        bool const crlf = !line.empty() && line.back() == '\r';
        std::cout << "    " << printable(line.substr(0, line.size() - (crlf ? 1 : 0))) << '\n';
    }
}

// The parts with their sizes, each leaf with the beginning of its bytes.
void printBody(HTTPMessage& message, int depth = 2) {
    std::string const indent(static_cast<std::size_t>(depth) * 2, ' ');
    for (int i = 0; i < message.num_parts(); ++i) {
        HTTPMessage& part = *message.getPart(i);
        std::cout << indent << "part " << i + 1 << ": "
                  << printable(headerText(part, "Content-Type")) << '\n';
        printBody(part, depth + 1);
    }
    if (message.num_parts() > 0 || message.contentSize() == 0) return;
    auto const size = static_cast<std::size_t>(message.contentSize());
    std::string_view const shown(message.contentBytes(), std::min(size, kShown));
    std::cout << indent << size << " bytes: " << printable(shown) << (size > kShown ? " ..." : "")
              << '\n';
}

void show(Options const& options, TraceFile const& trace) {
    Conversation const conversation(trace, roleOf(options));
    int number = 0;
    for (TracedMessage const& message : conversation.messages()) {
        std::cout << (message.read ? "<- " : "-> ") << "message " << ++number << ": "
                  << (message.request ? "request" : "response") << ", " << message.bytes.size()
                  << " bytes in " << message.calls << (message.read ? " receive" : " send")
                  << (message.calls == 1 ? "" : "s") << '\n';
        printHead(message.head);
        if (message.tree) printBody(*message.tree);
        if (!message.error.empty())
            std::cout << "    stopped here: " << printable(message.error) << '\n';
    }
}

struct Totals {
    std::size_t messages = 0, bytes = 0, calls = 0;
};

void printTotals(char const* name, Totals const& totals) {
    double const perMessage = totals.messages == 0 ? 0.0
                                                   : static_cast<double>(totals.calls) /
                                                         static_cast<double>(totals.messages);
    std::printf("%-10s %9zu %12zu %9zu %18.2f\n", name, totals.messages, totals.bytes, totals.calls,
                perMessage);
}

void stats(Options const& options, TraceFile const& trace) {
    Conversation const conversation(trace, roleOf(options));
    Totals received, sent;
    for (TracedMessage const& message : conversation.messages())
        ++(message.read ? received : sent).messages;
    for (TraceBlock const& block : trace.blocks()) {
        Totals& totals = block.read ? received : sent;
        totals.bytes += block.bytes.size();
        if (!block.bytes.empty()) ++totals.calls;
    }
    std::printf("%-10s %9s %12s %9s %18s\n", "", "messages", "bytes", "calls", "calls per message");
    printTotals("received", received);
    printTotals("sent", sent);
}

CLI::Validator address() {
    auto const check = [](std::string const& text) -> std::string {
        in_addr parsed{};
        if (inet_pton(AF_INET, text.c_str(), &parsed) == 1) return {};
        return "'" + text + "' is no IPv4 address";
    };
    return {check, "", ""};
}

PcapEndpoint endpoint(std::string const& address, std::uint16_t port) {
    in_addr parsed{};
    inet_pton(AF_INET, address.c_str(), &parsed);
    return {ntohl(parsed.s_addr), port};
}

void capture(Options const& options, TraceFile const& trace) {
    Conversation const conversation(trace, roleOf(options));
    PcapFile file(options.out, endpoint(options.clientAddress, options.clientPort),
                  endpoint(options.serverAddress, options.serverPort));
    for (TraceBlock const& block : trace.blocks())
        file.write(block.read == conversation.isServer(), block.bytes);
    file.finish();
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

int run(Options const& options, void (*job)(Options const&, TraceFile const&)) {
    TraceFile const trace(options.trace);
    job(options, trace);
    finishOutput();
    if (trace.missing() < 0)
        std::cerr << options.trace << ": ends inside the line before a block\n";
    if (trace.missing() > 0)
        std::cerr << options.trace << ": the last block lacks " << trace.missing() << " bytes\n";
    return static_cast<int>(ExitCode::Done);
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN);  // a capture that reaches the limit for files is reported
    Options options;
    CommandLineParser parser(kProgram, "Reads the trace file of a postwire socket.");
    CLI::App& app = parser.app();
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done, 2 bad options, 3 the trace can't be read or is none, or the\n"
        "output can't be written.");
    void (*job)(Options const&, TraceFile const&) = nullptr;
    auto const command = [&](char const* name, char const* text, auto run) {
        CLI::App* const sub = app.add_subcommand(name, text)->group("Commands");
        sub->add_option("TRACE", options.trace, "The trace file")->required();
        sub->add_option("--role", options.role, "Which side wrote it: client, server or guess")
            ->type_name("ROLE")
            ->check(oneOf({"client", "server", "guess"}))
            ->capture_default_str();
        sub->callback([&job, run] { job = run; });
        return sub;
    };
    command("show", "Print the exchange message by message", show);
    command("stats", "Count messages, bytes and calls", stats);
    CLI::App* const toPcap = command("pcap", "Write a capture file for Wireshark", capture);
    toPcap->add_option("OUT", options.out, "The capture file to write; -: standard output")
        ->required();
    defineEndpoint(*toPcap, "client", options.clientAddress, options.clientPort);
    defineEndpoint(*toPcap, "server", options.serverAddress, options.serverPort);
    if (auto const code = parser.parse(argc, argv)) return *code;
    return run(options, job);
} catch (std::exception const& e) {
    return complain(kProgram, ExitCode::BadFile, e.what());
}
