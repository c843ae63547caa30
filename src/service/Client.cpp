#include "service/Client.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <string>

#include "foundation/ZULBufferedInputStream.h"

#include "foundation/AsciiText.h"
#include "service/AnswerReader.h"
#include "service/ConnectionPool.h"
#include "service/Connector.h"
#include "service/ProxyChoice.h"
#include "service/RequestWriter.h"
#include "service/Url.h"

namespace postwire {

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

constexpr int kReadAhead = 16384;
constexpr std::size_t kMostOfProxy = 65536;  // of the head with which a proxy answers CONNECT

// What a client itself says of a message.
bool isOurs(std::string_view name) {
    constexpr std::array<std::string_view, 5> kOurs = {"content-length", "transfer-encoding",
                                                       "connection", "expect", "trailer"};
    return std::any_of(kOurs.begin(), kOurs.end(),
                       [name](std::string_view ours) { return equalsInAnyCase(name, ours); });
}

[[noreturn]] void raiseUsage(std::string const& text) {
    throw ClientError(ClientError::Code::usage, text);
}

void requireText(std::string_view text) {
    if (std::any_of(text.begin(), text.end(), isControlCharacter))
        raiseUsage("a header text holds a control character");
}

bool has(Fields const& fields, std::string_view name) {
    return std::any_of(fields.begin(), fields.end(),
                       [name](auto const& field) { return equalsInAnyCase(field.first, name); });
}

void append(std::string& head, std::string_view name, std::string_view text) {
    head.append(name).append(": ").append(text).append("\r\n");
}

void append(std::string& head, Fields const& fields) {
    for (auto const& [name, text] : fields) {
        if (!isToken(name) || isOurs(name)) raiseUsage("not a header name to set: " + name);
        requireText(text);
        append(head, name, text);
    }
}

// Answers in the order in which their bytes came: those that came while the message was sent, then
// what the socket gives.
class AnswerSource : public ZULInputStream {
public:
    AnswerSource(std::string const& early, ClientSocket& socket)
        : m_early(early), m_socket(socket) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        std::size_t const here = m_early.copy(bytes, static_cast<std::size_t>(n), m_at);
        m_at += here;
        if (here > 0) return static_cast<int>(here);
        if (m_first) m_socket.awaitInput();
        m_first = false;
        int const got = m_socket.read(bytes, static_cast<std::size_t>(n));
        return got > 0 ? got : -1;
    }

private:
    std::string const& m_early;
    std::size_t m_at = 0;
    ClientSocket& m_socket;
    bool m_first = true;  // nothing of the answer can be here yet: a look before the wait is saved
};

}  // namespace

class Client::Core {
public:
    Core(ClientOptions const& options, std::optional<TlsContext> tls)
        : m_options(options), m_pool(m_options), m_tls(std::move(tls)) {}

    Answer post(std::string_view url, OutgoingBody const& body, PostOptions const& options);

private:
    struct Call {
        Url url;
        std::optional<Url> proxy;
        OutgoingBody const& body;
        PostOptions const& options;
        std::optional<std::uint64_t> size;  // none: in chunks
        bool asks = false;                  // for 100-continue
        bool bodyBegan = false;             // to be written
        std::string origin;
    };

    std::string headOf(Call const& call) const;
    std::unique_ptr<ClientConnection> connect(Call const& call, ExchangeWatch& watch);
    void tunnel(Call const& call, ClientSocket& socket, ExchangeWatch& watch) const;
    TlsContext tls();
    std::unique_ptr<Answer::Data> exchange(Call& call, ExchangeWatch& watch);
    bool converse(Call& call, ClientConnection& connection, ExchangeWatch& watch,
                  Answer::Data& answer);

    ClientOptions const m_options;
    ConnectionPool m_pool;
    std::mutex m_mutex;
    std::optional<TlsContext> m_tls;  // under the mutex; made when it is first wanted
};

Client::Client() : Client(ClientOptions()) {}
Client::Client(ClientOptions const& options)
    : m_core(std::make_unique<Core>(options, std::nullopt)) {}
Client::Client(ClientOptions const& options, TlsContext tls)
    : m_core(std::make_unique<Core>(options, std::move(tls))) {}
Client::~Client() = default;

Answer Client::post(std::string_view url, std::string_view type, std::string_view body,
                    PostOptions const& options) {
    OutgoingBody outgoing;
    outgoing.type = type;
    outgoing.size = body.size();
    outgoing.isRepeatable = true;
    outgoing.write = [body](ZULOutputStream& out) {
        for (std::string_view left = body; !left.empty();) {
            std::size_t const piece = std::min<std::size_t>(left.size(), INT_MAX);
            out.write(left.data(), static_cast<int>(piece));
            left.remove_prefix(piece);
        }
    };
    return post(url, outgoing, options);
}

Answer Client::post(std::string_view url, OutgoingMessage const& message,
                    PostOptions const& options) {
    OutgoingBody body;
    body.type = message.contentType();
    body.fields = message.requestFields();
    body.size = message.size();
    body.isRepeatable = message.isRepeatable();
    body.write = [&message](ZULOutputStream& out) { message.write(out); };
    return post(url, body, options);
}

Answer Client::post(std::string_view url, OutgoingBody const& body, PostOptions const& options) {
    return m_core->post(url, body, options);
}

Answer Client::Core::post(std::string_view url, OutgoingBody const& body,
                          PostOptions const& options) {
    Call call{parseUrl(url), {}, body, options, body.size, false, false, {}};
    call.proxy = chooseProxy(m_options, call.url);
    if (call.size && (*call.size > INT_MAX || body.chunkSize > 0)) call.size.reset();
    call.asks = !body.size || *body.size > m_options.continueAbove;
    bool const isRelayed = call.proxy && !call.url.isTls;
    Url const& next = call.proxy ? *call.proxy : call.url;
    call.origin = next.host + " " + std::to_string(next.port) + (call.url.isTls ? " tls " : " ");
    if (call.proxy) call.origin += call.proxy->credentials;
    if (call.proxy && !isRelayed) call.origin += " " + call.url.host;
    if (call.proxy && !isRelayed) call.origin += " " + std::to_string(call.url.port);

    ExchangeWatch watch(m_options, options);
    watch.setBodySize(body.size);
    std::unique_ptr<Answer::Data> answer = exchange(call, watch);
    answer->bytesSent = watch.bytesSent();
    answer->bytesReceived = watch.bytesReceived();
    answer->duration = std::chrono::duration_cast<std::chrono::microseconds>(
        ExchangeWatch::Clock::now() - watch.began());
    if (options.raiseForStatus && answer->status / 100 != 2)
        watch.raise(ClientError::Code::status,
                    "the server answered " + std::to_string(answer->status) + " " + answer->reason,
                    0, answer->status);
    return Answer(std::move(answer));
}

// Over a kept connection first, of which only the attempt shows whether it still is one.
std::unique_ptr<Answer::Data> Client::Core::exchange(Call& call, ExchangeWatch& watch) {
    for (bool mayBeKept = true;; mayBeKept = false) {
        std::unique_ptr<ClientConnection> connection;
        if (mayBeKept) connection = m_pool.take(call.origin);
        bool const wasKept = connection != nullptr;
        if (!connection) connection = connect(call, watch);
        connection->socket.use(watch);
        try {
            auto answer = std::make_unique<Answer::Data>();
            bool const stays = converse(call, *connection, watch, *answer);
            answer->traceError = connection->socket.traceError();
            if (stays) m_pool.giveBack(std::move(connection));
            // Of the body nothing was sent: it may go out unasked, RFC 9110 section 10.1.1.
            if (answer->status != 417 || !call.asks || call.bodyBegan) return answer;
            call.asks = false;
        } catch (ClientError const& e) {
            bool const isConnections =
                e.code() == ClientError::Code::send || e.code() == ClientError::Code::receive;
            bool const mayRepeat =
                e.sent() == ClientError::Sent::nothing || call.options.repeatable;
            bool const canRepeat = call.body.isRepeatable || !call.bodyBegan;
            if (!wasKept || !isConnections || watch.hasReceived() || !mayRepeat || !canRepeat)
                throw;
        }
        watch.enter(ExchangeWatch::Stage::connecting);
    }
}

std::unique_ptr<ClientConnection> Client::Core::connect(Call const& call, ExchangeWatch& watch) {
    Url const& next = call.proxy ? *call.proxy : call.url;
    Descriptor connected = connectTo(next.host, next.port, m_options, watch);
    auto connection = std::make_unique<ClientConnection>(std::move(connected));
    connection->origin = call.origin;
    ClientSocket& socket = connection->socket;
    socket.use(watch);
    if (call.proxy && call.url.isTls) tunnel(call, socket, watch);
    if (call.url.isTls) socket.startTls(tls(), call.url.host);
    if (!m_options.openTrace) return connection;
    ClientOptions::Trace const trace = m_options.openTrace();
    Descriptor bytes(trace.bytes), times(trace.times);
    if (bytes.get() != -1 && times.get() != -1)
        socket.traceInto(WireTrace(std::move(bytes), std::move(times), call.url.isTls));
    return connection;
}

// RFC 9110 section 9.3.6. What is said here is not the message.
void Client::Core::tunnel(Call const& call, ClientSocket& socket, ExchangeWatch& watch) const {
    bool const isV6 = call.url.host.find(':') != std::string::npos;
    std::string const target =
        (isV6 ? "[" + call.url.host + "]" : call.url.host) + ":" + std::to_string(call.url.port);
    std::string head = "CONNECT " + target + " HTTP/1.1\r\nHost: " + target + "\r\n";
    if (!call.proxy->credentials.empty())
        append(head, "Proxy-Authorization", basicCredentials(call.proxy->credentials));
    head += "\r\n";
    socket.sayToProxy(head);
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos) {
        char byte = 0;
        int const n = socket.read(&byte, 1);
        if (n == 0 || answer.size() > kMostOfProxy)
            watch.raise(ClientError::Code::connect, "the proxy gave no answer to CONNECT");
        answer += byte;
    }
    watch.forgetReceived();
    if (answer.compare(0, 7, "HTTP/1.") == 0 && answer.compare(8, 2, " 2") == 0) return;
    int status = 0;
    for (char const c : answer.substr(std::min<std::size_t>(answer.size(), 9), 3))
        if (isDigit(c)) status = status * 10 + (c - '0');
    watch.raise(ClientError::Code::connect,
                "the proxy refused: " + answer.substr(0, answer.find('\r')), 0, status);
}

TlsContext Client::Core::tls() {
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (!m_tls) m_tls.emplace(TlsContext::client());
    return *m_tls;
}

std::string Client::Core::headOf(Call const& call) const {
    Url const& url = call.url;
    std::string head = "POST ";
    bool const isRelayed = call.proxy && !url.isTls;
    if (isRelayed) head.append("http://").append(url.authority);
    head.append(url.target).append(" HTTP/1.1\r\n");
    Fields const& own = call.options.fields;
    if (!has(own, "Host")) append(head, "Host", url.authority);
    if (isRelayed && !call.proxy->credentials.empty())
        append(head, "Proxy-Authorization", basicCredentials(call.proxy->credentials));
    if (!url.credentials.empty() && !has(own, "Authorization"))
        append(head, "Authorization", basicCredentials(url.credentials));
    if (!call.body.type.empty() && !has(own, "Content-Type")) {
        requireText(call.body.type);
        append(head, "Content-Type", call.body.type);
    }
    for (auto const& field : call.body.fields)
        if (!has(own, field.first)) append(head, {field});
    append(head, own);
    if (call.size)
        append(head, "Content-Length", std::to_string(*call.size));
    else
        append(head, "Transfer-Encoding", "chunked");
    if (m_options.kept <= 0) append(head, "Connection", "close");
    if (call.asks) append(head, "Expect", "100-continue");
    return head += "\r\n";
}

// True when the connection may serve another message.
bool Client::Core::converse(Call& call, ClientConnection& connection, ExchangeWatch& watch,
                            Answer::Data& answer) {
    RequestWriter writer(connection.socket, watch, call.size, call.body.chunkSize);
    bool sentAll = false;
    watch.enter(ExchangeWatch::Stage::awaitingAnswer);
    try {
        writer.begin(headOf(call));
        if (call.asks) writer.awaitContinue(m_options.continueLimit);
        watch.enter(ExchangeWatch::Stage::sending);
        call.bodyBegan = true;
        call.body.write(writer);
        writer.finish();
        sentAll = true;
    } catch (RequestWriter::AnsweredEarly const&) {
        // The answer is read, and the connection closed behind it.
    }
    watch.enter(ExchangeWatch::Stage::awaitingAnswer);
    AnswerSource source(writer.early(), connection.socket);
    ZULBufferedInputStream in(source, kReadAhead);
    AnswerReader reader(m_options, call.options, watch, answer);
    reader.read(in);
    return sentAll && reader.keepAlive() && in.buffered() == 0;
}

}  // namespace postwire
