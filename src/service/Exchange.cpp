#include "service/Exchange.h"

#include <exception>

#include "foundation/GuardedAllocation.h"

namespace postwire {

namespace {

// What a handler raises may be of any type, and ends nothing but its own request: false.
bool callHandler(Exchange::Handler const& handler, Exchange& exchange) noexcept {
    Request request(exchange);
    Response response(exchange);
    bool returned = false;
    runQuietly([&] {
        handler(request, response);
        returned = true;
    });
    return returned;
}

}  // namespace

RequestReader::Outcome Exchange::read(Connection& from, InputWait* wait) {
    connection = &from;
    return reader.read(from, wait);
}

void Exchange::run(Handler const& handler, bool last) {
    connection->toldToGoOn = false;
    connection->attempts = 0;
    connection->closing = last || !reader.keepAlive();
    answer.begin(*connection, reader.minorVersion());
    bool const answered = callHandler(handler, *this);
    try {
        if (!answered && answer.hasLeft()) {
            connection->failed = true;
        } else if (!answered) {
            answer.refuse({500, "the request could not be answered"});
        } else if (!answer.isGiven()) {
            answer.send(202, {}, {});
        }
        if (!connection->failed) answer.finish();
    } catch (std::exception const&) {
        connection->failed = true;
    }
    reader.clear();
}

void Exchange::refuse(Refusal const& refusal) noexcept try {
    connection->closing = true;
    answer.begin(*connection, 1);
    answer.refuse(refusal);
    answer.finish();
    reader.clear();
} catch (std::exception const&) {
    connection->failed = true;
}

}  // namespace postwire
