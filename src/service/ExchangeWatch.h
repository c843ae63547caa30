#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include <poll.h>

#include "service/ClientError.h"
#include "service/ClientOptions.h"

namespace postwire {

// The limits of one exchange of a client, and how far it has come: all its waits are here, and
// what it raises knows how much was sent.
//
// Ownership: options are borrowed.
class ExchangeWatch {
public:
    using Clock = std::chrono::steady_clock;
    enum class Stage { connecting, sending, awaitingAnswer, receiving };

    ExchangeWatch(ClientOptions const& client, PostOptions const& call);

    // The limit of the stage begins. An exchange that begins anew is connecting again, within the
    // limits of the first attempt.
    void enter(Stage stage);

    // Waits until a descriptor has events, which are told in it, or, with false, until `wake`.
    // Raises Code::time and Code::cancelled.
    bool await(pollfd* sockets, std::size_t count,
               Clock::time_point wake = Clock::time_point::max());
    short await(int descriptor, short events);

    // What the system has taken of the request, and given of the answer.
    void sent(std::size_t bytes);
    void received(std::size_t bytes);
    // What came was no part of the answer.
    void forgetReceived() { m_progress.received = 0; }
    void sentAll() { m_sent = ClientError::Sent::all; }

    // Of the body, for whoever observes.
    void tell(std::uint64_t bodySent, bool allSent);
    void setBodySize(std::optional<std::uint64_t> size) { m_progress.toSend = size; }

    [[nodiscard]] bool hasReceived() const { return m_progress.received > 0; }
    [[nodiscard]] std::uint64_t bytesSent() const { return m_bytesSent; }
    [[nodiscard]] std::uint64_t bytesReceived() const { return m_progress.received; }
    [[nodiscard]] Clock::time_point began() const { return m_began; }

    // What a connection that fails now stops.
    [[nodiscard]] ClientError::Code codeOfFailure() const {
        return m_stage == Stage::sending ? ClientError::Code::send : ClientError::Code::receive;
    }

    [[noreturn]] void raise(ClientError::Code code, std::string const& text, int systemError = 0,
                            int status = 0) const;

private:
    void check(Clock::time_point now) const;
    bool isTooSlow(Clock::time_point now) const;
    [[noreturn]] void raiseLate(Clock::time_point now) const;

    ClientOptions const& m_client;
    PostOptions const& m_call;
    Clock::time_point const m_began;
    Clock::time_point const m_exchangeEnd;
    Clock::time_point m_stageEnd;
    Clock::time_point m_stageBegan;
    Stage m_stage = Stage::connecting;
    ClientError::Sent m_sent = ClientError::Sent::nothing;
    std::uint64_t m_bytesSent = 0;
    std::uint64_t m_stageBytes = 0;
    ClientProgress m_progress;
    std::uint64_t m_told = 0;
};

}  // namespace postwire
