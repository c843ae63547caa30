#include "service/Answer.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include <poll.h>

#include "foundation/AsciiText.h"
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

bool isTokenCharacter(char c) {
    bool const isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return isLetter || (c >= '0' && c <= '9') ||
           (c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos);
}

bool isToken(std::string_view name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), isTokenCharacter);
}

// What the server itself says of the answer.
bool isOurs(std::string_view name) {
    constexpr std::array<char const*, 4> kOurs = {"content-length", "transfer-encoding",
                                                  "connection", "date"};
    return std::any_of(kOurs.begin(), kOurs.end(),
                       [name](char const* ours) { return equalsInAnyCase(name, ours); });
}

void requireText(std::string_view text) {
    constexpr std::string_view kLineBreakers("\r\n\0", 3);
    if (text.find_first_of(kLineBreakers) != std::string_view::npos)
        raiseUsage("a header text holds a line end or a zero byte");
}

}  // namespace

Answer::~Answer() = default;

void Answer::begin(Connection& connection, int minorVersion) {
    m_connection = &connection;
    m_minorVersion = minorVersion;
    m_fields.clear();
    m_held.clear();
    m_sent = 0;
    m_given = m_left = false;
    m_deadline = Clock::time_point::max();
}

void Answer::setHeader(std::string_view name, std::string_view text) {
    if (!isToken(name) || isOurs(name)) raiseUsage("not a header name that an answer may set");
    requireText(text);
    m_fields.append(name).append(": ").append(text).append("\r\n");
}

void Answer::send(int status, std::string_view type, std::string_view body) {
    if (m_given) raiseUsage("the request has been answered already");
    if (status < 200 || status > 599) raiseUsage("not the status of an answer");
    requireText(type);
    m_given = true;
    writeHead(status, type, body.size());
    put(body.data(), body.size());
}

void Answer::refuse(Refusal const& refusal) {
    m_held.clear();
    m_sent = 0;
    m_fields = refusal.status == 405 ? "Allow: POST\r\n" : "";
    m_given = true;
    std::string const text = refusal.text + "\n";
    writeHead(refusal.status, "text/plain; charset=utf-8", text.size());
    put(text.data(), text.size());
}

// 204 has neither a body nor a length, RFC 9110 section 8.6.
void Answer::writeHead(int status, std::string_view type, std::size_t length) {
    char line[96];
    int n = std::snprintf(line, sizeof line, "HTTP/1.1 %d %s\r\n", status, reasonOf(status));
    m_held.append(line, static_cast<std::size_t>(n));
    appendDate();
    if (m_connection->closing)
        m_held += "Connection: close\r\n";
    else if (m_minorVersion == 0)
        m_held += "Connection: keep-alive\r\n";
    if (!type.empty()) m_held.append("Content-Type: ").append(type).append("\r\n");
    if (status != 204) {
        n = std::snprintf(line, sizeof line, "Content-Length: %zu\r\n", length);
        m_held.append(line, static_cast<std::size_t>(n));
    }
    m_held.append(m_fields).append("\r\n");
}

// RFC 9110 section 5.6.7; made anew once a second.
void Answer::appendDate() {
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
    m_held.append("Date: ").append(m_date).append("\r\n");
}

void Answer::write(char const* data, int length) {
    if (length > 0) put(data, static_cast<std::size_t>(length));
}

void Answer::put(char const* data, std::size_t size) {
    if (m_held.size() + size <= kHeld)
        m_held.append(data, size);
    else
        push(data, size);
}

// Sends until what is left may wait in memory. Where the budget has no room, the calling thread
// waits for the peer instead.
void Answer::push(char const* data, std::size_t size) {
    for (;;) {
        m_left = true;
        std::size_t const held = m_held.size() - m_sent;
        std::size_t const taken = m_connection->transmit(m_held.data() + m_sent, held, data, size);
        m_sent += std::min(taken, held);
        std::size_t const ofData = taken - std::min(taken, held);
        data += ofData;
        size -= ofData;
        std::size_t const left = m_held.size() - m_sent + size;
        bool const fits = left <= kHeld;
        if (!fits && taken > 0) continue;
        if (!fits && !m_budget.take(left)) {
            if (m_deadline == Clock::time_point::max()) m_deadline = Clock::now() + m_limit;
            if (m_connection->await(POLLOUT, m_deadline)) continue;
            m_connection->failed = true;
            throw ServiceError(ServiceError::Code::timeLimit, "the peer does not take its answer");
        }
        if (!fits) m_connection->budgeted += left;
        m_held.erase(0, m_sent);
        m_sent = 0;
        m_held.append(data, size);
        return;
    }
}

void Answer::finish() {
    while (m_sent < m_held.size()) {
        m_left = true;
        std::size_t const taken =
            m_connection->transmit(m_held.data() + m_sent, m_held.size() - m_sent);
        m_sent += taken;
        if (taken == 0) {
            m_connection->output.assign(m_held, m_sent);
            m_connection->sent = 0;
            break;
        }
    }
    if (m_held.capacity() > 2 * kHeld) std::string().swap(m_held);
}

}  // namespace postwire
