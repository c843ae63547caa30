#include "service/RequestReader.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

#include "foundation/AsciiText.h"
#include "foundation/HTTPException.h"
#include "parser/HTTPReadPolicy.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

constexpr int kReadAhead = 16384;

// Raised where a body would go beyond the server's memory for bodies.
struct BudgetSpent {};

// A body on its way into the tree: what comes of it is taken from the budget.
class BudgetedStream : public ZULFilterInputStream {
public:
    BudgetedStream(ZULInputStream& in, Budget& budget, std::size_t& taken)
        : ZULFilterInputStream(in), m_budget(budget), m_taken(taken) {}

    using ZULFilterInputStream::read;
    int read(char* bytes, int n) override {
        int const got = ZULFilterInputStream::read(bytes, n);
        if (got <= 0) return got;
        auto const size = static_cast<std::size_t>(got);
        if (!m_budget.take(size)) throw BudgetSpent();
        m_taken += size;
        return got;
    }

private:
    Budget& m_budget;
    std::size_t& m_taken;
};

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

std::string_view trimmed(std::string_view text) {
    constexpr char kBlanks[] = " \t\r";
    std::size_t const begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

}  // namespace

InputWait::~InputWait() = default;

// RequestSource

bool RequestSource::begin(Connection& connection, InputWait* wait) {
    m_connection = &connection;
    m_wait = wait;
    m_at = m_begin = m_end = 0;
    inHead = true;
    return wait || beginWindow();
}

// One receive, and only where something may have come: a connection with nothing to say costs no
// memory, and one that says a whole request, which is the usual case, no second call.
bool RequestSource::beginWindow() {
    if (!m_window) m_window = std::make_unique<char[]>(kWindow);
    std::string& input = m_connection->input;
    m_end = input.size();
    std::memcpy(m_window.get(), input.data(), m_end);
    if (m_connection->pending && !m_connection->ended) receiveWindow();
    while (m_begin < m_end && (m_window[m_begin] == '\r' || m_window[m_begin] == '\n')) ++m_begin;
    m_at = m_begin;
    if (m_begin == m_end) input.clear();
    return m_begin < m_end;
}

// A receive that leaves room has taken all there was, and of more an event will tell. No event
// will tell of an end that came with the bytes.
void RequestSource::receiveWindow() {
    int got = 1;
    while (m_end < kWindow && got > 0) {
        std::size_t const room = kWindow - m_end;
        got = m_connection->receive(m_window.get() + m_end, room);
        if (got > 0) m_end += static_cast<std::size_t>(got);
        if (!m_connection->hungUp) break;
    }
    m_connection->pending = m_end == kWindow && !m_connection->ended;
}

int RequestSource::read(char* bytes, int n) {
    auto const room = static_cast<std::size_t>(n);
    char const* const held = m_wait ? m_connection->input.data() : m_window.get();
    std::size_t const end = m_wait ? m_connection->input.size() : m_end;
    if (m_at < end) {
        std::size_t const given = std::min(room, end - m_at);
        std::memcpy(bytes, held + m_at, given);
        m_at += given;
        return static_cast<int>(given);
    }
    for (;;) {
        if (m_connection->ended) return -1;
        if (!m_wait) throw NotHere();
        int const got = m_connection->receive(bytes, room);
        if (got > 0) return got;
        if (got < 0) m_wait->wait(*m_connection, inHead);
    }
}

void RequestSource::endAt(std::size_t unread) {
    std::string& input = m_connection->input;
    if (!m_wait) {
        std::size_t const at = m_at - unread;
        input.assign(m_window.get() + at, m_end - at);
    }
}

void RequestSource::giveUp() {
    if (!m_wait) m_connection->input.assign(m_window.get() + m_begin, m_end - m_begin);
}

// RequestReader

RequestReader::RequestReader(ServerOptions const& options, Budget& budget)
    : m_budget(budget), m_in(m_source, kReadAhead) {
    m_parser.setMsgHandler(this);
    m_parser.setReadPolicy(options.policy);
    m_parser.setContinueCallback(&RequestReader::goOn, this);
    setMessage(&m_message);
}

RequestReader::~RequestReader() { clear(); }

void RequestReader::clear() {
    setMessage(&m_message);  // drops a part that a failed parse left
    m_message.reset();
    m_budget.giveBack(std::exchange(m_budgeted, 0));
}

RequestReader::Outcome RequestReader::read(Connection& connection, InputWait* wait) {
    m_connection = &connection;
    m_waits = wait != nullptr;
    m_in.skip(m_in.buffered());  // of a request that was given up
    if (!m_source.begin(connection, wait))
        return connection.ended ? Outcome::closed : Outcome::notHere;
    Outcome const outcome = parse();
    if (outcome == Outcome::notHere) m_source.giveUp();
    if (outcome != Outcome::whole) return outcome;
    if (m_waits) {
        // Nothing is held back: what was replayed was read, since the request went beyond it.
        int unread = m_in.buffered();
        connection.input.assign(unread > 0 ? m_in.peek(unread) : "",
                                static_cast<std::size_t>(unread));
    }
    m_source.endAt(static_cast<std::size_t>(m_in.buffered()));
    return outcome;
}

// 400 for what input alone can bring about, assertions of the parser among it. A connection that
// ran out of memory ends; no other is touched.
RequestReader::Outcome RequestReader::parse() try {
    m_parser.parseRequest(&m_in);
    return Outcome::whole;
} catch (RequestSource::NotHere const&) {
    return Outcome::notHere;
} catch (TimeLimitPassed const&) {
    return refuse(408, "the request took too long");
} catch (BudgetSpent const&) {
    return refuse(503, "no memory is left for more requests");
} catch (ServiceError const&) {
    return Outcome::closed;
} catch (HTTPException const& e) {
    return refuse(HTTPPolicyException::getHttpStatus(e), textOf(e));
} catch (ZULStreamException const& e) {
    return refuse(400, textOf(e));
} catch (QORAssertError const& e) {
    return refuse(400, textOf(e));
} catch (QORThrowable const&) {
    return Outcome::closed;
} catch (std::bad_alloc const&) {
    return Outcome::closed;
}

RequestReader::Outcome RequestReader::refuse(int status, std::string text) {
    if (m_connection->failed) return Outcome::closed;
    m_refusal.status = status;
    m_refusal.text = std::move(text);
    return Outcome::refused;
}

std::vector<HeadLine> RequestReader::headLines(int head) const {
    std::vector<HeadLine> lines;
    if (head < 0 || head >= headCount()) return lines;
    auto const index = static_cast<std::size_t>(head);
    std::size_t const end = index + 1 < m_heads.size() ? m_heads[index + 1] : m_lines.size();
    for (std::size_t at = m_heads[index]; at < end;) {
        std::string_view const name = m_lines.c_str() + at;
        std::string_view const text = m_lines.c_str() + at + name.size() + 1;
        at += name.size() + text.size() + 2;
        lines.push_back({name, trimmed(text)});
    }
    return lines;
}

void RequestReader::reset() {
    HTTPMOMMsgHandler::reset();
    m_budget.giveBack(std::exchange(m_budgeted, 0));
    m_uri.clear();
    m_lines.clear();
    m_heads.assign(1, 0);
}

void RequestReader::setURI(char const* uri) { m_uri = uri; }

void RequestReader::header(char const* name, HTTPHeader* value) {
    m_lines.append(name, std::strlen(name) + 1);
    m_lines.append(value->lineText()).push_back('\0');
    HTTPMOMMsgHandler::header(name, value);
}

// A body that is here already is bounded by the window it stands in.
void RequestReader::content(ZULInputStream& is, int length) {
    m_source.inHead = false;
    if (!m_waits || length == 0) return HTTPMOMMsgHandler::content(is, length);
    BudgetedStream body(is, m_budget, m_budgeted);
    HTTPMOMMsgHandler::content(body, length);
}

void RequestReader::content(ZULInputStream& is) {
    m_source.inHead = false;
    if (!m_waits) return HTTPMOMMsgHandler::content(is);
    BudgetedStream body(is, m_budget, m_budgeted);
    HTTPMOMMsgHandler::content(body);
}

void RequestReader::startMultiParts(char const* boundary) {
    m_source.inHead = false;
    HTTPMOMMsgHandler::startMultiParts(boundary);
}

void RequestReader::startPart() {
    m_heads.push_back(m_lines.size());
    HTTPMOMMsgHandler::startPart();
}

// Once for each request, however often it is begun to be read.
void RequestReader::goOn(void* self) {
    static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    Connection& connection = *static_cast<RequestReader*>(self)->m_connection;
    if (!std::exchange(connection.toldToGoOn, true))
        connection.transmit(kContinue, sizeof kContinue - 1);
}

}  // namespace postwire
