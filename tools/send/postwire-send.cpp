// postwire-send: posts a SOAP envelope, with files attached to it, and shows the answer.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "foundation/AsciiText.h"
#include "message/HTTPMessage.h"
#include "service/Attachments.h"
#include "service/Client.h"
#include "tools/common/CommandLineParser.h"
#include "tools/common/MessageSummary.h"
#include "tools/common/PartFiles.h"
#include "tools/common/PrivateFile.h"
#include "tools/common/SoapSummary.h"
#include "tools/common/StandardStreams.h"
#include "tools/common/TextEscapes.h"
#include "tools/send/Progress.h"
#include "tools/send/SoapRequest.h"

namespace {

constexpr char kProgram[] = "postwire-send";

char const kFooter[] =
    "The message is one body, or with --attach multipart/related with the envelope first.\n"
    "Exit codes: 0 the answer's status is 2xx, 1 it is another, 2 bad options or a request that\n"
    "must not be sent so, 3 a file can't be read or written, 4 the connection failed or timed "
    "out,\n"
    "5 the answer is malformed or cut short.";

constexpr int kDirectChunk = 65536;  // of what stands between the parts of a direct message
constexpr long long kShownUpload = 1 << 20;
constexpr int kShownText = 4096;
constexpr int kMaxParts = 1000;  // of an answer: each may become a file

struct CommandLine {
    std::string url;
    std::string body;
    std::string type;
    std::string encoding = "binary";
    bool direct = false;
    std::vector<std::string> attachments;
    std::vector<std::string> fields;
    SoapRequest request;
    std::string saveDirectory;
    std::string traceFile;
    double timeout = 60;
    std::chrono::milliseconds timeLimit{};
    postwire::TlsContext::Client tls;
    bool insecure = false;
    std::string proxy;
    bool proxyFromEnvironment = false;
    bool quiet = false;
    bool json = false;
};

void defineMessage(CLI::App& app, CommandLine& line) {
    app.add_option("URL", line.url, "Where to: http[s]://host[:port][/path][?query]")->required();
    app.add_option("--body", line.body, "The envelope; - is the standard input")
        ->type_name("FILE")
        ->required();
    CLI::Option* const type = app.add_option("--type", line.type, "Its content type")
                                  ->type_name("TYPE")
                                  ->default_str("text/xml; charset=utf-8");
    app.add_option("--soap", line.request.soap, "The version of SOAP that it is in, 1.1 or 1.2")
        ->type_name("VERSION")
        ->check(oneOf({"1.1", "1.2"}))
        ->excludes(type);
    app.add_option("--action", line.request.action, "What is asked for")->type_name("URI");
    app.add_flag("--mtom", line.request.mtom, "Wrap the envelope up as MTOM has it");
    app.add_option("--start", line.request.start, "The envelope's Content-ID")->type_name("CID");
    CLI::Option* const attach =
        app.add_option("--attach", line.attachments,
                       "A file to go along, its content type and its Content-ID; may be repeated")
            ->type_name("FILE[;TYPE[;CID]]")
            ->allow_extra_args(false);
    app.add_option("--encoding", line.encoding,
                   "How attachments stand on the wire, binary or base64")
        ->type_name("CODING")
        ->check(oneOf({"binary", "base64"}))
        ->needs(attach);
    app.add_flag("--nest", line.request.nested, "Put the attachments into a part of their own")
        ->needs(attach);
    app.add_option("-H,--header", line.fields, "A header field; may be repeated")
        ->type_name("'NAME: VALUE'")
        ->allow_extra_args(false);
    app.add_option("--boundary", line.request.boundary,
                   "The text between parts, instead of a random one; refused where it occurs in a "
                   "file");
    CLI::Option* const chunked =
        app.add_option("--chunked", line.request.chunkSize,
                       "Send in chunks of at most SIZE bytes instead of with a length")
            ->type_name("SIZE")
            ->check(within(1, 1 << 30));
    app.add_flag("--direct", line.direct, "Send in chunks, attachments straight from their files")
        ->needs(attach)
        ->excludes(chunked)
        ->excludes("--nest");
}

void defineRest(CLI::App& app, CommandLine& line) {
    app.add_option("--save", line.saveDirectory, "Write every part of the answer into a file")
        ->type_name("DIR");
    app.add_option("--trace", line.traceFile, "Write all bytes sent and received into a file")
        ->type_name("FILE");
    app.add_option("--timeout", line.timeout, "Time for connecting, sending and receiving together")
        ->type_name("SECONDS")
        ->check(within(0.01, 86400.0))
        ->capture_default_str();
    app.add_option("--cacert", line.tls.authorities, "Trust these authorities, not the system's")
        ->type_name("FILE");
    CLI::Option* const certificate =
        app.add_option("--cert", line.tls.certificate, "Certificate to show")->type_name("FILE");
    app.add_option("--key", line.tls.key, "Its key, where it stands in another file")
        ->type_name("FILE")
        ->needs(certificate);
    CLI::Option* const proxy =
        app.add_option("--proxy", line.proxy,
                       "Go through this proxy: http://[user:password@]host[:port]")
            ->type_name("URL");
    app.add_flag("--proxy-from-environment", line.proxyFromEnvironment,
                 "Go through the proxy that http_proxy, https_proxy and no_proxy name, if any")
        ->excludes(proxy);
    app.add_flag("--insecure", line.insecure, "Take any certificate of the server");
    CLI::Option* const quiet = app.add_flag("--quiet", line.quiet, "Print nothing but errors");
    app.add_flag("--json", line.json, "Print the answer as JSON")->excludes(quiet);
    app.footer(kFooter);
}

// A request that may be sent.
void complete(CommandLine& line) {
    line.timeLimit =
        std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(line.timeout));
    SoapRequest& request = line.request;
    for (std::string const& field : line.fields) request.fields.push_back(parseHeaderField(field));
    if (line.type.empty()) request.soap = request.soap.empty() ? "1.1" : request.soap;
    if (line.type.empty()) line.type = "text/xml";  // the version says which
    char const* const id = "envelope@postwire";
    request.envelope = line.body == "-" ? readStandardInput(line.type, id)
                                        : describeFile(line.body, line.type, id);
    request.coding = *postwire::transferCodingOf(line.encoding);
    for (std::string const& file : line.attachments)
        request.attachments.push_back(parseAttachment(file));
    if (line.direct) request.chunkSize = kDirectChunk;
    request.isDigested = line.json;
    prepare(request);
}

// The times have no place beside what is no regular file.
postwire::ClientOptions::Trace openTrace(std::string const& path) {
    std::error_code error;
    bool const isOther =
        std::filesystem::exists(path, error) && !std::filesystem::is_regular_file(path, error);
    int const bytes = openPrivately(path);
    return {bytes, openPrivately(isOther ? "/dev/null" : path + ".times")};
}

postwire::ClientOptions optionsOf(CommandLine const& line) {
    postwire::ClientOptions options;
    options.exchangeLimit = options.connectLimit = options.headLimit = line.timeLimit;
    options.lowestRate = 0;
    options.kept = 0;
    options.proxy = line.proxy;
    options.proxyFromEnvironment = line.proxyFromEnvironment;
    options.policy = {};  // of any size: the server is one that was chosen
    options.policy.maxParts = kMaxParts;
    options.policy.boundMessage = options.policy.partsEndAtBoundary = true;
    options.policy.strictFraming = true;
    if (!line.traceFile.empty()) options.openTrace = [&line] { return openTrace(line.traceFile); };
    return options;
}

// What is trusted is looked at where it is needed alone.
postwire::Client clientOf(CommandLine const& line) {
    if (!beginsInAnyCase(line.url, "https:")) return postwire::Client(optionsOf(line));
    postwire::TlsContext::Client files = line.tls;
    files.verifies = !line.insecure;
    if (files.key.empty()) files.key = files.certificate;
    return {optionsOf(line), postwire::TlsContext::client(files)};
}

postwire::Answer exchange(CommandLine& line) {
    postwire::Client client = clientOf(line);
    postwire::PostOptions options;
    for (HeaderField const& field : line.request.fields)
        options.fields.emplace_back(field.name, field.value);
    long long const size = line.request.bodySize();
    std::optional<Progress> progress;
    if (!line.quiet && size > kShownUpload && ::isatty(STDERR_FILENO) == 1) {
        progress.emplace(size);
        options.progress = std::ref(*progress);
    }
    return client.post(line.url, bodyOf(line.request), options);
}

// The text of the answer, where it is short and says that it is one.
std::string shownText(HTTPMessage& message) {
    std::string const type = message.getContentType();
    bool const isText = type.compare(0, 5, "text/") == 0 || type == "application/xml" ||
                        type == "application/soap+xml" || type == "application/json";
    if (!isText || message.contentSize() == 0 || message.contentSize() > kShownText) return {};
    return "\n" + printableLines(
                      {message.contentBytes(), static_cast<std::size_t>(message.contentSize())});
}

void printForPeople(postwire::Answer& answer, std::vector<std::string> const& savedAs) {
    std::string text = std::to_string(answer.status()) + " " + printable(answer.reason()) + "\n";
    appendSoapLines(text, postwire::Attachments(answer));
    appendTree(text, summarise(answer.message()));
    for (std::string const& name : savedAs) text.append("saved ").append(name).append("\n");
    text += shownText(answer.message());
    std::fputs(text.c_str(), stdout);
}

void appendSent(std::string& to, SentFile const& file) {
    to.append("{\"file\":\"").append(escapedForJson(file.path));
    to.append("\",\"contentId\":\"").append(escapedForJson(file.contentId));
    to.append("\",\"size\":").append(std::to_string(file.size));
    to.append(",\"sha256\":\"").append(file.sha256).append("\"}");
}

void printJson(SoapRequest const& request, postwire::Answer& answer,
               std::vector<std::string> const& savedAs) {
    double const milliseconds = static_cast<double>(answer.duration().count()) / 1000;
    std::string json = "{\"status\":" + std::to_string(answer.status()) + ",\"reason\":\"" +
                       escapedForJson(answer.reason()) +
                       "\",\"milliseconds\":" + std::to_string(milliseconds) +
                       ",\"bytesSent\":" + std::to_string(answer.bytesSent()) + ",\"sent\":[";
    appendSent(json, request.envelope);
    for (SentFile const& file : request.attachments) {
        json += ',';
        appendSent(json, file);
    }
    json += "],\"answer\":";
    appendJson(json, summarise(answer.message()));
    json += ",\"saved\":[";
    for (std::string const& name : savedAs) {
        if (&name != &savedAs.front()) json += ',';
        json.append("\"").append(escapedForJson(name)).append("\"");
    }
    std::printf("%s]}\n", json.c_str());
}

ExitCode send(CommandLine& line) {
    complete(line);
    std::optional<PartFiles> files;
    if (!line.saveDirectory.empty()) files.emplace(line.saveDirectory);
    postwire::Answer answer = exchange(line);
    std::vector<std::string> savedAs;
    std::string unsaved;
    try {
        if (files) savedAs = files->save(answer.message(), "");
    } catch (std::system_error const& e) {
        unsaved = e.what();  // told behind what the server has said
    }
    if (line.json) {
        printJson(line.request, answer, savedAs);
    } else if (!line.quiet) {
        printForPeople(answer, savedAs);
    }
    finishOutput();
    if (!unsaved.empty()) complain(kProgram, ExitCode::BadFile, unsaved);
    if (answer.traceError() != 0)
        complain(kProgram, ExitCode::BadFile,
                 line.traceFile + " could not be written: " +
                     std::generic_category().message(answer.traceError()));
    if (!unsaved.empty() || answer.traceError() != 0) return ExitCode::BadFile;
    return answer.isGood() ? ExitCode::Done : ExitCode::Otherwise;
}

ExitCode codeOf(postwire::ClientError const& e) {
    if (e.code() == postwire::ClientError::Code::usage) return ExitCode::BadOptions;
    return e.code() == postwire::ClientError::Code::malformed ? ExitCode::BadAnswer
                                                              : ExitCode::BadConnection;
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN);  // a file that reaches the limit is reported
    CommandLine line;
    CommandLineParser parser(
        kProgram, "Posts a SOAP envelope, with files attached to it, and shows the answer.");
    defineMessage(parser.app(), line);
    defineRest(parser.app(), line);
    if (auto const code = parser.parse(argc, argv)) return *code;
    return static_cast<int>(send(line));
} catch (std::invalid_argument const& e) {
    return complain(kProgram, ExitCode::BadOptions, e.what());
} catch (postwire::ClientError const& e) {
    return complain(kProgram, codeOf(e), e.what());
} catch (std::bad_alloc const&) {
    return complain(kProgram, ExitCode::Otherwise, "out of memory");
} catch (std::exception const& e) {
    return complain(kProgram, ExitCode::BadFile, e.what());
}
