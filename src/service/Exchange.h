#pragma once

#include <functional>
#include <optional>

#include "service/AnswerWriter.h"
#include "service/Connection.h"
#include "service/Request.h"
#include "service/RequestReader.h"
#include "service/Response.h"

namespace postwire {

// What one request takes from its first byte to its answer. Used again for the next one, of any
// connection, so that a request takes no memory of its own.
struct Exchange {
    using Handler = std::function<void(Request&, Response&)>;

    Exchange(ServerOptions const& options, Budget& budget)
        : reader(options, budget), answer(options, budget), m_isObserved(options.observe) {}

    // Reads the connection's next request, as RequestReader does.
    RequestReader::Outcome read(Connection& from, InputWait* wait);

    // Asks how the body of a request is read whose head is here, and reads it where a handler was
    // chosen. Waits for the peer, within the time that the choice has. No exception comes out.
    RequestReader::Outcome readAsChosen(ServerOptions const& options);

    // Has the handler answer the request; what it raises is answered 500. The connection then
    // closes where it said so, where `last`, and where half an answer has left. No exception
    // comes out.
    void run(Handler const& handler, bool last);

    // Answers a request that was refused.
    void refuse(Refusal const& refusal);

    Connection* connection = nullptr;
    bool hasToChoose = false;  // the next thing to do is readAsChosen
    RequestReader reader;
    AnswerWriter answer;

private:
    void leave(std::optional<Refusal> const& refusal = {});
    bool callHandler(Handler const& handler) noexcept;
    void finish();
    void report();

    bool const m_isObserved;
    // Where it is: the two ends of the handler's time, and what went wrong.
    Clock::time_point m_handlerBegin{};
    Clock::time_point m_handlerEnd{};
    Refusal m_fault;
};

}  // namespace postwire
