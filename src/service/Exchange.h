#pragma once

#include <functional>

#include "service/Answer.h"
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
        : reader(options, budget), answer(budget, options.answerLimit) {}

    // Reads the connection's next request, as RequestReader does.
    RequestReader::Outcome read(Connection& from, InputWait* wait);

    // Has the handler answer the request; what it raises is answered 500. The connection then
    // closes where it said so, where `last`, and where half an answer has left. No exception
    // comes out.
    void run(Handler const& handler, bool last);

    // Answers a request that was refused.
    void refuse(Refusal const& refusal) noexcept;

    Connection* connection = nullptr;
    RequestReader reader;
    Answer answer;
};

}  // namespace postwire
