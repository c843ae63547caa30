#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <string_view>

#include "foundation/ZULOutputStream.h"

#include "service/Budget.h"
#include "service/Connection.h"
#include "service/RequestReader.h"

namespace postwire {

// Writes one answer to a connection: what a handler gives it waits here until it is worth a send,
// and what the peer does not take at once is left to the connection's loop.
//
// Raises: ServiceError::Code::peerGone and Code::timeLimit.
class Answer : public ZULOutputStream {
public:
    // Above this many bytes an answer begins to leave while it is written.
    static constexpr std::size_t kHeld = 65536;

    Answer(Budget& budget, std::chrono::milliseconds limit) : m_budget(budget), m_limit(limit) {}
    ~Answer() override;

    void begin(Connection& connection, int minorVersion);

    // Stages a line of the head.
    void setHeader(std::string_view name, std::string_view text);

    // The whole answer; an empty type is left out.
    void send(int status, std::string_view type, std::string_view body);

    // The same for a request that was refused; it drops what was written but has not left.
    void refuse(Refusal const& refusal);

    // Bytes of the message.
    void write(char const* data, int length) override;

    // Sends what the peer takes now; the rest becomes the connection's.
    void finish();

    [[nodiscard]] bool isGiven() const { return m_given; }

    // Whether a part of the answer has left, so that no other can be given.
    [[nodiscard]] bool hasLeft() const { return m_left; }

private:
    void writeHead(int status, std::string_view type, std::size_t length);
    void put(char const* data, std::size_t size);
    void push(char const* data, std::size_t size);
    void appendDate();

    Budget& m_budget;
    std::chrono::milliseconds const m_limit;
    Connection* m_connection = nullptr;
    std::string m_fields;  // staged lines
    std::string m_held;    // from m_sent on still to be sent
    std::size_t m_sent = 0;
    int m_minorVersion = 1;
    bool m_given = false;
    bool m_left = false;
    Clock::time_point m_deadline{};
    std::time_t m_dateTime = -1;
    char m_date[32] = "";  // of m_dateTime
};

}  // namespace postwire
