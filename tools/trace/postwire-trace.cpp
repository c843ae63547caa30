// Shows what a socket trace holds, counts it, and turns it into a capture file.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>

#include <CLI/CLI.hpp>
#include <arpa/inet.h>

#include "tools/common/MessageSummary.h"
#include "tools/common/StandardStreams.h"
#include "tools/common/TextEscapes.h"
#include "tools/trace/Conversation.h"
#include "tools/trace/PcapFile.h"
#include "tools/trace/TraceFile.h"

namespace {

// Exit codes, as the manual page lists them.
constexpr int kDone = 0, kNotWritten = 1, kNoTrace = 2;

constexpr std::size_t kShown = 60;  // bytes of a body that show prints

struct Options {
    std::string trace;
    Conversation::Role role = Conversation::Role::Guess;
    std::string out;
    std::string clientAddress = "127.0.0.1", serverAddress = "127.0.0.1";
    std::uint16_t clientPort = 49152, serverPort = 80;
};

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
    Conversation const conversation(trace, options.role);
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
    Conversation const conversation(trace, options.role);
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

PcapEndpoint endpoint(std::string const& address, std::uint16_t port) {
    in_addr parsed{};
    if (inet_pton(AF_INET, address.c_str(), &parsed) != 1)
        throw CLI::ValidationError(address, "not an IPv4 address");
    return {ntohl(parsed.s_addr), port};
}

void capture(Options const& options, TraceFile const& trace) {
    Conversation const conversation(trace, options.role);
    PcapFile file(options.out, endpoint(options.clientAddress, options.clientPort),
                  endpoint(options.serverAddress, options.serverPort));
    for (TraceBlock const& block : trace.blocks())
        file.write(block.read == conversation.isServer(), block.bytes);
    file.finish();
}

int run(Options const& options, void (*job)(Options const&, TraceFile const&)) {
    TraceFile const trace(options.trace);
    job(options, trace);
    finishOutput();
    if (trace.missing() < 0)
        std::cerr << options.trace << ": ends inside the line before a block\n";
    if (trace.missing() > 0)
        std::cerr << options.trace << ": the last block lacks " << trace.missing() << " bytes\n";
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    openStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN);  // a capture that reaches the limit for files is reported
    Options options;
    CLI::App app("Reads the trace file of a postwire socket.");
    app.set_version_flag("--version", POSTWIRE_VERSION);
    app.require_subcommand(1);
    std::map<std::string, Conversation::Role> const roles{{"client", Conversation::Role::Client},
                                                          {"server", Conversation::Role::Server},
                                                          {"guess", Conversation::Role::Guess}};
    void (*job)(Options const&, TraceFile const&) = nullptr;
    auto const command = [&](char const* name, char const* text, auto run) {
        CLI::App* const sub = app.add_subcommand(name, text);
        sub->add_option("trace", options.trace, "The trace file")->required();
        sub->add_option("--role", options.role, "Which side wrote it: client, server or guess")
            ->transform(CLI::CheckedTransformer(roles));
        sub->callback([&job, run] { job = run; });
        return sub;
    };
    command("show", "Print the exchange message by message", show);
    command("stats", "Count messages, bytes and calls", stats);
    CLI::App* const toPcap = command("pcap", "Write a capture file for Wireshark", capture);
    toPcap->add_option("out", options.out, "The capture file to write")->required();
    toPcap->add_option("--client-address", options.clientAddress, "IPv4 address to show");
    toPcap->add_option("--server-address", options.serverAddress, "IPv4 address to show");
    toPcap->add_option("--client-port", options.clientPort, "Port to show");
    toPcap->add_option("--server-port", options.serverPort, "Port to show; 80 is read as HTTP");
    try {
        app.parse(argc, argv);
        return run(options, job);
    } catch (CLI::ParseError const& e) {
        return app.exit(e);
    } catch (TraceError const& e) {
        std::cerr << "postwire-trace: " << e.what() << '\n';
        return kNoTrace;
    } catch (std::exception const& e) {
        std::cerr << "postwire-trace: " << e.what() << '\n';
        return kNotWritten;
    }
}
