#pragma once

#include <functional>
#include <string_view>

#include "service/AnswerWriter.h"
#include "service/Connection.h"
#include "service/Request.h"
#include "service/RequestReader.h"
#include "service/Response.h"

namespace postwire {

// What one request takes from its first byte to its answer. Used again for the next one, of any
// connection, so that a request takes no memory of its own.
//
// Rule: where memory runs out, the connection has failed, and nothing else has.
struct Exchange {
    using Handler = std::function<void(Request&, Response&)>;

    Exchange(ServerOptions const& options, Budget& budget)
        : reader(options, budget),
          answer(options, budget),
          m_options(options),
          m_isObserved(options.observe) {}

    // Reads the connection's next request, as RequestReader does. Where it `asks`, the program
    // says how the body is read as soon as the head is here.
    RequestReader::Outcome read(Connection& from, InputWait* wait, bool asks) noexcept;

    // The same for a request of this exchange whose head is here. Where a handler was chosen, it
    // waits for the peer, within the time that the choice has.
    RequestReader::Outcome readAsChosen() noexcept;

    // Has the handler answer the request; what it raises is answered 500. The connection then
    // closes where it said so, where `last`, and where half an answer has left.
    void run(Handler const& handler, bool last) noexcept;

    // Answers a request that was refused.
    void refuse(int status, std::string_view text, long code = 0) noexcept;
    void refuse(Refusal const& refusal) noexcept;

    Connection* connection = nullptr;
    bool hasToChoose = false;  // the next thing to do is readAsChosen
    RequestReader reader;
    AnswerWriter answer;

private:
    void leave() noexcept;
    void leaveRefused(int status, std::string_view text) noexcept;
    bool callHandler(Handler const& handler) noexcept;
    void finish() noexcept;
    void report();

    ServerOptions const& m_options;
    bool const m_isObserved;
    // Where it is: the two ends of the handler's time, and what went wrong.
    Clock::time_point m_handlerBegin{};
    Clock::time_point m_handlerEnd{};
    Refusal m_fault;
};

}  // namespace postwire
