#include "service/Exchange.h"

#include <algorithm>
#include <exception>
#include <memory>
#include <utility>

#include <poll.h>

#include "foundation/QORThrowable.h"

#include "foundation/AsciiText.h"
#include "foundation/GuardedAllocation.h"
#include "foundation/HTTPException.h"
#include "socket/SoapSocket.h"

namespace postwire {

namespace {

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

// Waits on the calling thread for the rest of a body that goes to a handler.
class ThreadWait : public InputWait {
public:
    ThreadWait(ServerOptions const& options, RequestReader const& reader)
        : m_options(options), m_reader(reader) {}

    // Looks up now and then, whether the peer is too slow.
    void wait(Connection& connection, bool) override {
        constexpr std::chrono::seconds kTick{1};
        auto const given = connection.choice->limit;
        auto const end = connection.began + (given.count() > 0 ? given : m_options.requestLimit);
        for (;;) {
            Clock::time_point const now = Clock::now();
            if (now >= end || isTooSlow(m_options, now - connection.began, m_reader.received()))
                throw TimeLimitPassed();
            if (connection.await(POLLIN | POLLRDHUP, std::min<Clock::time_point>(end, now + kTick)))
                return;
        }
    }

private:
    ServerOptions const& m_options;
    RequestReader const& m_reader;
};

}  // namespace

RequestReader::Outcome Exchange::read(Connection& from, InputWait* wait, bool asks) noexcept {
    connection = &from;
    if (m_isObserved && from.attempts == 0) from.began = Clock::now();
    auto const choose = [this] {
        Request request(*this);
        return m_options.chooseBody(request);
    };
    RequestReader::Outcome outcome = RequestReader::Outcome::failed;
    runQuietly(
        [&] { outcome = reader.read(from, wait, asks ? RequestReader::Choose(choose) : nullptr); });
    return outcome;
}

RequestReader::Outcome Exchange::readAsChosen() noexcept {
    hasToChoose = false;
    if (connection->attempts++ == 0) connection->began = Clock::now();
    ThreadWait wait(m_options, reader);
    return read(*connection, &wait, true);
}

// What a handler raises may be of any type, and ends nothing but its own request: false.
bool Exchange::callHandler(Handler const& handler) noexcept {
    Request request(*this);
    Response response(*this);
    bool returned = false;
    runQuietly([&] {
        try {
            handler(request, response);
            answer.complete();
            returned = true;
        } catch (HTTPException const& e) {
            m_fault = {0, textOf(e), e.getCode()};
        } catch (QORThrowable const& e) {
            m_fault = {0, textOf(e), 0};
        } catch (SoapSocketException& e) {
            m_fault = {0, e.getDetails(), 0};
        } catch (std::exception const& e) {
            m_fault = {0, e.what(), 0};
        }
    });
    return returned;
}

void Exchange::run(Handler const& handler, bool last) noexcept {
    connection->closing = last || !m_options.keepAlive || !reader.keepAlive();
    answer.begin(*connection, reader.minorVersion());
    m_fault = {};
    if (m_isObserved) m_handlerBegin = Clock::now();
    bool const answered = callHandler(handler);
    if (m_isObserved) m_handlerEnd = Clock::now();
    if (!answered && m_fault.text.empty())
        runQuietly([this] { m_fault.text = "the handler raised"; });
    if (answered)
        leave();
    else if (answer.hasLeft())
        connection->failed = true;
    else
        leaveRefused(500, "the request could not be answered");
    finish();
}

void Exchange::refuse(Refusal const& refusal) noexcept {
    refuse(refusal.status, refusal.text, refusal.code);
}

void Exchange::refuse(int status, std::string_view text, long code) noexcept {
    connection->closing = true;
    answer.begin(*connection, 1);
    if (m_isObserved) {
        m_handlerBegin = m_handlerEnd = Clock::now();
        runQuietly([&] { m_fault = {status, std::string(text), code}; });
    }
    leaveRefused(status, text);
    finish();
}

// What is raised here says that the peer has gone, or that there is no memory for it.
void Exchange::leave() noexcept {
    bool left = false;
    runQuietly([&] {
        answer.leave();
        left = true;
    });
    connection->failed = connection->failed || !left;
}

void Exchange::leaveRefused(int status, std::string_view text) noexcept {
    bool written = false;
    runQuietly([&] {
        answer.refuse(status, text);
        written = true;
    });
    connection->failed = connection->failed || !written;
    if (written) leave();
}

void Exchange::finish() noexcept {
    if (m_isObserved) runQuietly([this] { report(); });
    connection->toldToGoOn = false;
    connection->attempts = 0;
    connection->choice.reset();
    reader.clear();
}

// For the loop, which knows when the answer is out. A fault of the server's own has a status, but
// the text that the peer was told is another.
void Exchange::report() {
    using std::chrono::duration_cast;
    using Microseconds = std::chrono::microseconds;
    auto report = std::make_unique<ExchangeReport>();
    report->peer = connection->peer.host();
    report->peerPort = connection->peer.port();
    report->uri = reader.uri();
    report->minorVersion = reader.minorVersion();
    for (HeadLine const& line : reader.headLines(0)) {
        if (equalsInAnyCase(line.name, "user-agent")) report->userAgent = line.text;
        if (equalsInAnyCase(line.name, "referer")) report->referer = line.text;
    }
    report->status = answer.status();
    report->bytesIn = reader.received();
    Clock::time_point const head = reader.headEnd();
    bool const hasHead = head != Clock::time_point();
    bool const hasBegun = connection->began != Clock::time_point();
    Clock::time_point const headEnd = hasHead ? head : m_handlerBegin;
    if (hasBegun) report->head = duration_cast<Microseconds>(headEnd - connection->began);
    report->body = duration_cast<Microseconds>(m_handlerBegin - headEnd);
    report->handler = duration_cast<Microseconds>(m_handlerEnd - m_handlerBegin);
    report->code = m_fault.code;
    report->text = m_fault.text;
    connection->answerBegan = m_handlerEnd;
    connection->report = std::move(report);
}

}  // namespace postwire
