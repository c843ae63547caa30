// postwire-send: posts a SOAP envelope, with files attached to it, and shows the answer.

#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULBufferedOutputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"
#include "tools/common/Deadline.h"
#include "tools/common/MessageSummary.h"
#include "tools/common/PartFiles.h"
#include "tools/common/PrivateFile.h"
#include "tools/common/SoapSummary.h"
#include "tools/common/StandardStreams.h"
#include "tools/common/TextEscapes.h"
#include "tools/common/TracedSocket.h"
#include "tools/send/ProgressOutputStream.h"
#include "tools/send/SoapRequest.h"

namespace {

enum ExitCode : int {
    kAnsweredWell = 0,
    kAnsweredOtherwise = 1,
    kBadUsage = 2,
    kBadFile = 3,
    kBadConnection = 4,
    kBadAnswer = 5,
};

char const kFooter[] =
    "The message is one body, or with --attach multipart/related with the envelope first.\n"
    "Exit codes: 0 the answer's status is 2xx, 1 it is another, 2 bad options or a request that\n"
    "must not be sent so, 3 a file can't be read or written, 4 the connection failed or timed "
    "out,\n"
    "5 the answer is malformed or cut short.";

constexpr int kDirectChunk = 65536;  // of what stands between the parts of a direct message
constexpr int kSendBuffer = 65536;
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
    Deadline::Clock::duration timeLimit{};
    bool quiet = false;
    bool json = false;
};

struct Answer {
    HTTPMessage message;
    HTTPMessage::StatusCode status{};
    std::string reason;
    long long bytesSent = 0;
    double milliseconds = 0;
    std::vector<std::string> savedAs;
    bool traceLost = false;
};

int complained(int code, std::string const& text) {
    std::fprintf(stderr, "postwire-send: %s", printableLines(text).c_str());
    return code;
}

void defineMessage(CLI::App& app, CommandLine& line) {
    app.add_option("url", line.url, "Where to: http://host[:port][/path]")->required();
    app.add_option("--body", line.body, "The envelope; - is the standard input")
        ->type_name("FILE")
        ->required();
    CLI::Option* const type = app.add_option("--type", line.type, "Its content type")
                                  ->default_str("text/xml; charset=utf-8");
    app.add_option("--soap", line.request.soap, "The version of SOAP that it is in")
        ->check(CLI::IsMember({"1.1", "1.2"}))
        ->excludes(type);
    app.add_option("--action", line.request.action, "What is asked for")->type_name("URI");
    app.add_flag("--mtom", line.request.mtom, "Wrap the envelope up as MTOM has it");
    app.add_option("--start", line.request.start, "The envelope's Content-ID")->type_name("CID");
    CLI::Option* const attach =
        app.add_option("--attach", line.attachments,
                       "A file to go along, its content type and its Content-ID; may be repeated")
            ->type_name("FILE[;TYPE[;CID]]")
            ->allow_extra_args(false);
    app.add_option("--encoding", line.encoding, "How attachments stand on the wire")
        ->check(CLI::IsMember({"binary", "base64"}))
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
            ->check(CLI::Range(1, 1 << 30).description(""));
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
    app.add_option("--timeout", line.timeout,
                   "Time for the answer to arrive, and for each block to be taken")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.01, 86400.0).description(""))
        ->capture_default_str();
    CLI::Option* const quiet = app.add_flag("--quiet", line.quiet, "Print nothing but errors");
    app.add_flag("--json", line.json, "Print the answer as JSON")->excludes(quiet);
    app.set_version_flag("--version", "postwire-send " POSTWIRE_VERSION);
    app.footer(kFooter);
}

// A request that may be sent.
void complete(CommandLine& line) {
    line.timeLimit = Deadline::seconds(line.timeout);
    SoapRequest& request = line.request;
    request.url = parseHttpUrl(line.url);
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
    prepare(request);
}

// The trace of an exchange, however that ends.
class Trace {
public:
    Trace(TracedSocket& socket, std::string const& path, bool& lost)
        : m_socket(socket), m_path(path), m_lost(lost) {
        if (!path.empty()) socket.traceInto(openPrivately(path));
    }
    Trace(Trace const&) = delete;
    Trace& operator=(Trace const&) = delete;
    ~Trace() {
        m_lost = !m_socket.endTrace();
        if (m_lost)
            std::fprintf(stderr, "postwire-send: %s could not be written\n", m_path.c_str());
    }

private:
    TracedSocket& m_socket;
    std::string const& m_path;
    bool& m_lost;
};

// What stopped the request from being sent, if anything did: a server may answer before it has read
// all of it, and close.
std::optional<SoapSocketException> sendRequest(CommandLine& line, SoapSocket& socket,
                                               Answer& answer) {
    long long const size = line.request.bodySize();
    bool const visible = !line.quiet && size > kShownUpload && ::isatty(STDERR_FILENO);
    ProgressOutputStream progress(*socket.getOutputStream(), size, visible);
    ZULBufferedOutputStream out(progress, kSendBuffer);
    std::optional<SoapSocketException> failure;
    try {
        write(line.request, out);
        out.flush();
    } catch (SoapSocketException const& e) {
        failure.emplace(e);
    }
    progress.close();
    answer.bytesSent = progress.bytesWritten();
    return failure;
}

void readAnswer(CommandLine const& line, SoapSocket& socket, Answer& answer) {
    Deadline deadline;
    deadline.start(line.timeLimit);
    DeadlineInputStream limited(socket, deadline);
    ZULBufferedInputStream in(limited, 16384);
    HTTPReadPolicy policy;  // of any size: the server is one that was chosen
    policy.maxParts = kMaxParts;
    policy.boundMessage = policy.partsEndAtBoundary = policy.strictFraming = true;
    HTTPMessageReader reader(in);
    reader.setReadPolicy(policy);
    reader.getResponse(&answer.message, &answer.status, &answer.reason);
}

void exchange(CommandLine& line, Answer& answer) {
    TracedSocket socket;
    Trace const trace(socket, line.traceFile, answer.traceLost);
    socket.SetServerHostInfo(line.request.url.host.data());
    socket.Open(line.request.url.port);
    limitSends(socket.getDescriptor(), line.timeLimit);
    auto const begin = Deadline::Clock::now();
    std::optional<SoapSocketException> const failure = sendRequest(line, socket, answer);
    try {
        readAnswer(line, socket, answer);
    } catch (QORException const&) {
        if (failure) throw *failure;
        throw;
    }
    answer.milliseconds =
        std::chrono::duration<double, std::milli>(Deadline::Clock::now() - begin).count();
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

void printForPeople(Answer& answer) {
    std::string text =
        std::to_string(static_cast<int>(answer.status)) + " " + printable(answer.reason) + "\n";
    appendSoapLines(text, postwire::Attachments(answer.message));
    appendTree(text, summarise(answer.message));
    for (std::string const& name : answer.savedAs) text.append("saved ").append(name).append("\n");
    text += shownText(answer.message);
    std::fputs(text.c_str(), stdout);
}

void appendSent(std::string& to, SentFile const& file) {
    to.append("{\"file\":\"").append(escapedForJson(file.path));
    to.append("\",\"contentId\":\"").append(escapedForJson(file.contentId));
    to.append("\",\"size\":").append(std::to_string(file.size));
    to.append(",\"sha256\":\"").append(file.sha256).append("\"}");
}

void printJson(SoapRequest const& request, Answer& answer) {
    std::string json = "{\"status\":" + std::to_string(static_cast<int>(answer.status)) +
                       ",\"reason\":\"" + escapedForJson(answer.reason) +
                       "\",\"milliseconds\":" + std::to_string(answer.milliseconds) +
                       ",\"bytesSent\":" + std::to_string(answer.bytesSent) + ",\"sent\":[";
    appendSent(json, request.envelope);
    for (SentFile const& file : request.attachments) {
        json += ',';
        appendSent(json, file);
    }
    json += "],\"answer\":";
    appendJson(json, summarise(answer.message));
    json += ",\"saved\":[";
    for (std::string const& name : answer.savedAs) {
        if (&name != &answer.savedAs.front()) json += ',';
        json.append("\"").append(escapedForJson(name)).append("\"");
    }
    std::printf("%s]}\n", json.c_str());
}

int send(CommandLine& line) {
    complete(line);
    std::optional<PartFiles> files;
    if (!line.saveDirectory.empty()) files.emplace(line.saveDirectory);
    Answer answer;
    exchange(line, answer);
    if (files) answer.savedAs = files->save(answer.message, "");
    if (line.json) {
        printJson(line.request, answer);
    } else if (!line.quiet) {
        printForPeople(answer);
    }
    finishOutput();
    if (answer.traceLost) return kBadFile;
    return answer.status / 100 == 2 ? kAnsweredWell : kAnsweredOtherwise;
}

std::string textOf(QORException const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

}  // namespace

int main(int argc, char** argv) try {
    openStandardStreams();
    std::signal(SIGPIPE, SIG_IGN);  // a server that closes is an exception, not the end of us
    std::signal(SIGXFSZ, SIG_IGN);  // nor is a file that has reached the limit for files
    CLI::App app("Posts a SOAP envelope, with files attached to it, and shows the answer.");
    CommandLine line;
    defineMessage(app, line);
    defineRest(app, line);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& e) {
        return app.exit(e) == 0 ? kAnsweredWell : kBadUsage;
    }
    return send(line);
} catch (std::invalid_argument const& e) {
    return complained(kBadUsage, e.what());
} catch (TimeLimitPassed const&) {
    return complained(kBadConnection, "no complete answer within the time limit");
} catch (SoapSocketException& e) {
    return complained(kBadConnection, std::string("the connection failed: ") + e.getDetails());
} catch (QORIllegalStateError const&) {
    return complained(kBadConnection, "the host name can't be resolved");
} catch (QORException const& e) {
    return complained(kBadAnswer, "bad answer: " + textOf(e));
} catch (std::exception const& e) {
    return complained(kBadFile, e.what());
}
