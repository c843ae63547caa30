#include "service/AnswerWriter.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <poll.h>

#include "foundation/AsciiText.h"
#include "service/MediaType.h"
#include "service/RandomDigits.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

struct Reason {
    int status;
    char const* text;
};

constexpr Reason kReasons[] = {
    {200, "OK"},
    {202, "Accepted"},
    {204, "No Content"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {503, "Service Unavailable"},
    {505, "HTTP Version Not Supported"},
};

// Empty for a status that is not in the list: a reason may be, RFC 9112 section 4.
char const* reasonOf(int status) {
    for (Reason const& reason : kReasons)
        if (reason.status == status) return reason.text;
    return "";
}

[[noreturn]] void raiseUsage(char const* text) {
    throw ServiceError(ServiceError::Code::usage, text);
}

// What the server itself says of the answer.
bool isOurs(std::string_view name) {
    constexpr std::array<char const*, 4> kOurs = {"content-length", "transfer-encoding",
                                                  "connection", "date"};
    return std::any_of(kOurs.begin(), kOurs.end(),
                       [name](char const* ours) { return equalsInAnyCase(name, ours); });
}

// In pieces whose length a node can take.
void writeTo(OnePieceHttpMsg& node, std::string_view bytes) {
    constexpr std::size_t kPiece = 1 << 20;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(kPiece, bytes.size())))
        node.write(bytes.data(), static_cast<int>(std::min(kPiece, bytes.size())));
}

void stage(HttpMsgNode& node, char const* name, std::string_view text) {
    node.setHeaderText(name, text.data(), static_cast<int>(text.size()));
}

// The body of a node.
class NodeStream : public ZULOutputStream {
public:
    explicit NodeStream(OnePieceHttpMsg& node) : m_node(node) {}
    void write(char const* data, int length) override { m_node.write(data, length); }

private:
    OnePieceHttpMsg& m_node;
};

void requireText(std::string_view text) {
    constexpr std::string_view kLineBreakers("\r\n\0", 3);
    if (text.find_first_of(kLineBreakers) != std::string_view::npos)
        raiseUsage("a header text holds a line end or a zero byte");
}

}  // namespace

AnswerWriter::~AnswerWriter() = default;

void AnswerWriter::begin(Connection& connection, int minorVersion) {
    m_connection = &connection;
    m_minorVersion = minorVersion;
    m_fields.clear();
    m_held.clear();
    m_sent = 0;
    m_given = m_left = false;
    m_onePiece.reset();
    m_multipart.reset();
    m_chunks.reset();
    m_toCome.reset();
    m_status = 0;
    connection.waitsSince = {};
    connection.taken = 0;
}

void AnswerWriter::setHeader(std::string_view name, std::string_view text) {
    if (!isToken(name) || isOurs(name)) raiseUsage("not a header name that an answer may set");
    requireText(text);
    m_fields.append(name).append(": ").append(text).append("\r\n");
}

void AnswerWriter::send(int status, std::string_view type, std::string_view body) {
    begin(status, type);
    writeHead(status, type, body.size());
    put(body.data(), body.size());
}

void AnswerWriter::begin(int status, std::string_view type) {
    if (m_given) raiseUsage("the request has been answered already");
    if (status < 200 || status > 599) raiseUsage("not the status of an answer");
    requireText(type);
    m_given = true;
    m_status = status;
}

void AnswerWriter::send(int status, OutgoingMessage const& message) {
    constexpr int kChunk = 32768;
    std::string const type = message.contentType();
    if (auto const size = message.size()) {
        begin(status, type);
        writeHead(status, type, *size);
        return message.write(*this);
    }
    NodeStream body(onePiece(status, type, kChunk));
    message.write(body);
}

OnePieceHttpMsg& AnswerWriter::onePiece(int status, std::string_view type, int chunkSize) {
    begin(status, type);
    m_onePiece = std::make_unique<OnePieceHttpMsg>(*this, chunkSizeFor(chunkSize));
    startNode(*m_onePiece, status);
    if (!type.empty()) stage(*m_onePiece, "Content-Type", type);
    return *m_onePiece;
}

MultipartHttpMsg& AnswerWriter::multipart(int status, int chunkSize) {
    begin(status, {});
    std::string const boundary = "part-" + randomDigits();
    m_multipart =
        std::make_unique<MultipartHttpMsg>(*this, chunkSizeFor(chunkSize), boundary.c_str());
    m_relatedType = "multipart/related";
    MediaType::append(m_relatedType, "boundary", boundary);
    startNode(*m_multipart, status);
    return *m_multipart;
}

void AnswerWriter::addPart(std::string_view type, std::string_view id, std::string_view bytes) {
    if (!m_multipart) raiseUsage("no multipart answer has been begun");
    requireText(type);
    requireText(id);
    nameRootType(type);
    OnePieceHttpMsg* const part = m_multipart->addOnePiece(0);
    part->reset();
    if (!type.empty()) stage(*part, "Content-Type", type);
    if (!id.empty()) stage(*part, "Content-ID", id);
    writeTo(*part, bytes);
    m_multipart->endPart(part);
}

// The first part is the root, whose type the whole has to tell, RFC 2387 section 3.1.
void AnswerWriter::nameRootType(std::string_view type) {
    std::string related = std::exchange(m_relatedType, {});
    if (related.empty() || type.empty()) return;
    MediaType::append(related, "type", MediaType(type).value());
    stage(*m_multipart, "Content-Type", related);
}

ZULOutputStream& AnswerWriter::stream(int status, std::string_view type, std::uint64_t length,
                                      int chunkSize) {
    int const size = chunkSizeFor(chunkSize);
    begin(status, type);
    if (size == 0) {
        writeHead(status, type, length);
        m_toCome = length;
        return *this;
    }
    writeHead(status, type, {});
    m_chunks = std::make_unique<ZULChunkedOutputStream>(*this, size);
    return *m_chunks;
}

// HTTP/1.0 knows no chunks.
int AnswerWriter::chunkSizeFor(int asked) const {
    if (asked < 0) raiseUsage("a chunk size is negative");
    return m_minorVersion == 0 ? 0 : asked;
}

void AnswerWriter::startNode(HttpMsgNode& node, int status) {
    node.startResponse(status, reasonOf(status));
    node.setHeader("Date", date());
    if (m_connection->closing)
        node.setHeader("Connection", "close");
    else if (m_minorVersion == 0)
        node.setHeader("Connection", "keep-alive");
    for (std::size_t at = 0; at < m_fields.size();) {
        std::size_t const colon = m_fields.find(':', at);
        std::size_t const end = m_fields.find('\r', colon);
        stage(node, m_fields.substr(at, colon - at).c_str(),
              std::string_view(m_fields).substr(colon + 2, end - colon - 2));
        at = end + 2;
    }
}

void AnswerWriter::refuse(int status, std::string_view text) {
    m_onePiece.reset();
    m_multipart.reset();
    m_chunks.reset();
    m_toCome.reset();
    m_held.clear();
    m_sent = 0;
    m_status = status;
    m_fields = status == 405 ? "Allow: POST\r\n" : "";
    m_given = true;
    writeHead(status, "text/plain; charset=utf-8", text.size() + 1);
    put(text.data(), text.size());
    put("\n", 1);
}

// 204 has neither a body nor a length, RFC 9110 section 8.6.
void AnswerWriter::writeHead(int status, std::string_view type,
                             std::optional<std::uint64_t> length) {
    char line[96];
    int const n = std::snprintf(line, sizeof line, "HTTP/1.1 %d %s\r\n", status, reasonOf(status));
    m_held.append(line, static_cast<std::size_t>(n));
    m_held.append("Date: ").append(date()).append("\r\n");
    if (m_connection->closing)
        m_held += "Connection: close\r\n";
    else if (m_minorVersion == 0)
        m_held += "Connection: keep-alive\r\n";
    if (!type.empty()) m_held.append("Content-Type: ").append(type).append("\r\n");
    if (!length)
        m_held += "Transfer-Encoding: chunked\r\n";
    else if (status != 204)
        m_held.append("Content-Length: ").append(std::to_string(*length)).append("\r\n");
    m_held.append(m_fields).append("\r\n");
}

// RFC 9110 section 5.6.7; made anew once a second.
char const* AnswerWriter::date() {
    static constexpr char const* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static constexpr char const* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    std::time_t const now = std::time(nullptr);
    if (now != m_dateTime) {
        std::tm utc{};
        ::gmtime_r(&now, &utc);
        std::snprintf(m_date, sizeof m_date, "%s, %02u %s %04u %02u:%02u:%02u GMT",
                      kDays[utc.tm_wday], static_cast<unsigned>(utc.tm_mday) % 100U,
                      kMonths[utc.tm_mon], static_cast<unsigned>(utc.tm_year + 1900) % 10000U,
                      static_cast<unsigned>(utc.tm_hour) % 100U,
                      static_cast<unsigned>(utc.tm_min) % 100U,
                      static_cast<unsigned>(utc.tm_sec) % 100U);
        m_dateTime = now;
    }
    return m_date;
}

void AnswerWriter::write(char const* data, int length) {
    if (length <= 0) return;
    auto const size = static_cast<std::size_t>(length);
    if (m_toCome && size > *m_toCome) raiseUsage("an answer is longer than was said");
    if (m_toCome) *m_toCome -= size;
    put(data, size);
}

void AnswerWriter::put(char const* data, std::size_t size) {
    if (m_held.size() + size <= kHeld)
        m_held.append(data, size);
    else
        push(data, size);
}

// Sends until what is left may wait in memory. Where the budget has no room, the calling thread
// waits for the peer instead.
void AnswerWriter::push(char const* data, std::size_t size) {
    for (;;) {
        m_left = true;
        std::size_t const held = m_held.size() - m_sent;
        std::size_t const taken = m_connection->transmit(m_held.data() + m_sent, held, data, size);
        m_sent += std::min(taken, held);
        m_connection->taken += static_cast<long long>(taken);
        std::size_t const ofData = taken - std::min(taken, held);
        data += ofData;
        size -= ofData;
        std::size_t const left = m_held.size() - m_sent + size;
        bool const fits = left <= kHeld;
        if (!fits && taken > 0) continue;
        std::size_t const more = fits ? 0 : left - std::min(left, m_connection->budgeted);
        if (!m_budget.take(more)) {
            awaitPeer();
            continue;
        }
        m_connection->budgeted += more;
        m_held.erase(0, m_sent);
        m_sent = 0;
        m_held.append(data, size);
        return;
    }
}

// The time for the answer begins when the peer first does not take what there is of it.
void AnswerWriter::awaitPeer() {
    constexpr std::chrono::seconds kTick{1};
    Clock::time_point now = Clock::now();
    m_connection->beginWait(now);
    Clock::time_point const end = m_connection->waitsSince + m_options.answerLimit;
    for (; now < end &&
           !isTooSlow(m_options, now - m_connection->waitsSince, m_connection->takenWithin());
         now = Clock::now())
        if (m_connection->await(POLLOUT, std::min<Clock::time_point>(end, now + kTick))) return;
    m_connection->failed = true;
    throw ServiceError(ServiceError::Code::timeLimit, "the peer does not take its answer");
}

void AnswerWriter::complete() {
    if (!m_given) return send(202, {}, {});
    if (m_onePiece) m_onePiece->finish();
    if (m_multipart) m_multipart->finish();
    if (m_chunks) m_chunks->close();
    if (m_toCome.value_or(0) > 0) raiseUsage("an answer is shorter than was said");
    m_onePiece.reset();
    m_multipart.reset();
}

void AnswerWriter::leave() {
    while (m_sent < m_held.size()) {
        m_left = true;
        std::size_t const taken =
            m_connection->transmit(m_held.data() + m_sent, m_held.size() - m_sent);
        m_sent += taken;
        m_connection->taken += static_cast<long long>(taken);
        if (taken == 0) {
            m_connection->output.assign(m_held, m_sent);
            m_connection->sent = 0;
            break;
        }
    }
    if (m_held.capacity() > 2 * kHeld) std::string().swap(m_held);
}

}  // namespace postwire
