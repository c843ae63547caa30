#include "service/RequestReader.h"

#include <algorithm>
#include <climits>
#include <new>
#include <utility>

#include "foundation/QORThrowable.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULStreamException.h"

#include "foundation/AsciiText.h"
#include "foundation/HTTPException.h"
#include "message/LineAsItCame.h"
#include "parser/HTTPReadPolicy.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

constexpr int kReadAhead = 16384;

// Raised where the program is to be asked how to go on.
struct HeadHere {};

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

// A body of which more than that is an error.
class LimitedStream : public ZULFilterInputStream {
public:
    LimitedStream(ZULInputStream& in, long long& left) : ZULFilterInputStream(in), m_left(left) {}

    using ZULFilterInputStream::read;
    int read(char* bytes, int n) override {
        int const got = ZULFilterInputStream::read(bytes, n);
        m_left -= std::max(got, 0);
        if (m_left < 0) throw RequestSource::TooLarge();
        return got;
    }

private:
    long long& m_left;
};

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

}  // namespace

bool isTooSlow(ServerOptions const& options, Clock::duration since, long long bytes) {
    constexpr std::chrono::seconds kGrace{10};
    auto const elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    return since >= kGrace && bytes < options.lowestRate * static_cast<long long>(elapsed) / 1000;
}

RequestReader::RequestReader(ServerOptions const& options, Budget& budget)
    : IncomingMessage(m_lines), m_options(options), m_budget(budget), m_in(m_source, kReadAhead) {
    HTTPReadPolicy policy = options.policy;
    if (options.chooseBody) policy.maxBody = 0;  // known too late for the policy
    listenTo(m_parser);
    m_parser.setReadPolicy(policy);
    m_parser.setContinueCallback(&RequestReader::wantGoOn, this);
    setMessage(&m_message);
}

RequestReader::~RequestReader() { clear(); }

void RequestReader::clear() {
    setMessage(&m_message);  // drops a part that a failed parse left
    m_message.reset();
    m_source.forget();
    m_uri.clear();
    m_heads.shrink();
    m_headEnd = {};
    m_budget.giveBack(std::exchange(m_budgeted, 0));
}

RequestReader::Outcome RequestReader::read(Connection& connection, InputWait* wait,
                                           Choose const& choose) {
    if (!m_source.begin(connection, wait))
        return connection.ended ? Outcome::closed : Outcome::notHere;
    if (choose)
        m_source.allowReceiving(false);
    else if (m_options.chooseBody && !connection.choice)
        m_source.keepHead();
    m_choose = choose ? &choose : nullptr;
    m_connection = &connection;
    m_waits = wait != nullptr;
    m_uri.clear();
    m_in.skip(m_in.buffered());  // of a request that was given up
    Outcome const outcome = parse();
    if (outcome == Outcome::notHere || outcome == Outcome::headHere) m_source.giveUp();
    if (outcome != Outcome::whole) return outcome;
    int unread = m_in.buffered();
    char const* const bytes = unread > 0 ? m_in.peek(unread) : "";
    m_source.endAt({bytes, static_cast<std::size_t>(unread)});
    return outcome;
}

// 400 for what input alone can bring about, assertions of the parser among it. A connection that
// ran out of memory ends; no other is touched.
RequestReader::Outcome RequestReader::parse() try {
    m_parser.parseRequest(&m_in);
    return Outcome::whole;
} catch (RequestSource::NotHere const&) {
    return Outcome::notHere;
} catch (HeadHere const&) {
    return Outcome::headHere;
} catch (TimeLimitPassed const&) {
    return refuse(408, "the request took too long");
} catch (RequestSource::TooLarge const&) {
    return refuse(413, "the body is larger than this server takes");
} catch (BudgetSpent const&) {
    return refuse(503, "no memory is left for more requests");
} catch (ServiceError const&) {
    if (!m_connection->failed) throw;  // the program's own
    return Outcome::closed;
} catch (HTTPException const& e) {
    return refuse(HTTPPolicyException::getHttpStatus(e), textOf(e), e.getCode());
} catch (ZULStreamException const& e) {
    return refuse(400, textOf(e));
} catch (Refusal const& e) {
    return refuse(e.status, e.text);
} catch (QORAssertError const&) {
    return refuse(400, "the request can't be read");
} catch (QORThrowable const&) {
    return Outcome::closed;
} catch (std::bad_alloc const&) {
    return Outcome::closed;
}

RequestReader::Outcome RequestReader::refuse(int status, std::string text, long code) {
    if (m_connection->failed) return Outcome::closed;
    m_refusal.status = status;
    m_refusal.code = code;
    m_refusal.text = std::move(text);
    return Outcome::refused;
}

void RequestReader::reset() {
    m_target = nullptr;
    IncomingMessage::reset();
    m_budget.giveBack(std::exchange(m_budgeted, 0));
    m_goOnWanted = false;
    m_headEnd = {};
    m_uri.clear();
}

void RequestReader::setURI(char const* uri) { m_uri = uri; }

void RequestReader::header(char const* name, HTTPHeader* value) {
    constexpr std::size_t kCopies = 2;  // here and in the tree
    std::size_t const textSize = internal::LineAsItCame::text(*value).size();
    if (m_waits) takeMemory(kCopies * (m_name.size() + textSize + 2));
    IncomingMessage::header(name, value);
}

void RequestReader::takeMemory(std::size_t bytes) {
    if (!m_budget.take(bytes)) throw BudgetSpent();
    m_budgeted += bytes;
}

// Before the first event of a body, the message's own or a part's; 0 where it has no length.
void RequestReader::beginBody(long long length) {
    if (m_source.isInHead()) endHead();
    // Lengths end there: it may stand for any larger one.
    if (length == INT_MAX) throw RequestSource::TooLarge();
    m_bodyLeft -= length;
    if (m_bodyLeft < 0) throw RequestSource::TooLarge();
    sayGoOn();
}

void RequestReader::endHead() {
    m_source.endHead();
    if (m_options.observe) m_headEnd = Clock::now();
    m_bodyLeft = LLONG_MAX;  // the policy counts
    if (m_options.chooseBody) choose();
}

void RequestReader::choose() {
    std::shared_ptr<BodyChoice const>& choice = m_connection->choice;
    if (!choice && !m_choose) throw HeadHere();
    if (!choice) choice = std::make_shared<BodyChoice const>((*m_choose)());
    if (choice->handler && !m_waits) throw HeadHere();
    long long const most = choice->maxBody > 0 ? choice->maxBody : m_options.policy.maxBody;
    // With room for the framing of chunks and parts, and for what was read ahead.
    if (most > 0) m_source.limit(most + most / 8 + (128 << 10));
    if (most > 0) m_bodyLeft = most;
    m_target = choice->handler.get();
    if (!m_target) return;
    m_source.allowReceiving(true);
    tellHead(*m_target);
}

void RequestReader::tellHead(HTTPMsgHandler& handler) {
    handler.reset();
    handler.setURI(m_uri.c_str());
    for (HeadLine const& line : headLines(0)) {
        HTTPHeader value;
        value.parse(std::string(line.text).c_str());
        std::string name(line.name);
        toLowerCase(name.data(), name.data() + name.size());
        handler.header(name.c_str(), &value);
    }
}

// A body that is here already is bounded by the window it stands in; others count in the budget.
void RequestReader::content(ZULInputStream& is, int length) {
    beginBody(length);
    if (m_target || !m_waits || length == 0) return IncomingMessage::content(is, length);
    BudgetedStream body(is, m_budget, m_budgeted);
    IncomingMessage::content(body, length);
}

void RequestReader::content(ZULInputStream& is) {
    beginBody(0);
    if (!m_options.policy.strictFraming && !isChunked()) return contentWithoutEnd(is);
    LimitedStream limited(is, m_bodyLeft);
    if (m_target || !m_waits) return IncomingMessage::content(limited);
    BudgetedStream body(limited, m_budget, m_budgeted);
    IncomingMessage::content(body);
}

// Whether the head that was read last says so, in the one form that all readers take for it.
bool RequestReader::isChunked() const {
    std::string_view coding;
    for (HeadLine const& line : headLines(headCount() - 1))
        if (equalsInAnyCase(line.name, "transfer-encoding")) coding = line.text;
    return equalsInAnyCase(coding, "chunked");
}

// Only without strictFraming: the client waits for its answer, not we for the end of the
// connection. RFC 9112 section 6.3.
void RequestReader::contentWithoutEnd(ZULInputStream& is) {
    if (headCount() > 1) throw Refusal{400, "a part has neither Content-Length nor chunked coding"};
    for (HeadLine const& line : headLines(0))
        for (char const* const framing : {"content-length", "transfer-encoding"})
            if (equalsInAnyCase(line.name, framing))
                throw Refusal{400, std::string("bad ") + framing};
    IncomingMessage::content(is, 0);
}

void RequestReader::startMultiParts(char const* boundary) {
    beginBody(0);
    IncomingMessage::startMultiParts(boundary);
}

void RequestReader::startPart() {
    constexpr std::size_t kPart = 512;  // a part without its lines and its body
    if (m_waits) takeMemory(kPart);
    IncomingMessage::startPart();
}

// The client is told when its body has turned out to be wanted.
void RequestReader::wantGoOn(void* self) { static_cast<RequestReader*>(self)->m_goOnWanted = true; }

// Once for each request, however often it is begun to be read.
void RequestReader::sayGoOn() {
    static constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
    if (std::exchange(m_goOnWanted, false) && !std::exchange(m_connection->toldToGoOn, true))
        m_connection->transmit(kContinue, sizeof kContinue - 1);
}

}  // namespace postwire
