#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "foundation/QORThrowable.h"

#include "parser/HTTPParser.h"
#include "tools/trace/Direction.h"
#include "tools/trace/MessageCollector.h"
#include "tools/trace/TracedMessage.h"

// The messages of a trace, both directions joined in the order in which they began. One of them at
// a time is read, and kept as far as was asked for.
class Conversation {
public:
    enum class Role { Guess, Client, Server };

    // With Role::Guess the side whose bytes begin with "HTTP/" is the server. The file is borrowed.
    Conversation(TraceFile& file, Role role, Keeping keeping);
    Conversation(Conversation const&) = delete;
    Conversation& operator=(Conversation const&) = delete;

    // The next message into `message`; false when there is none. One that can't be read takes the
    // rest of its direction: where the next one begins is not known any more.
    bool next(TracedMessage& message);

    // Whether the traced side is the server.
    bool isServer();

    // For what was read of them all in all.
    Direction const& received() const { return m_received; }
    Direction const& sent() const { return m_sent; }

private:
    Direction* nextDirection();
    bool guess(Direction const* first);
    void readHead(Direction& direction, TracedMessage& message);
    void readMessage(Direction& direction, TracedMessage& message);
    std::string why(QORException& error, Direction& direction);
    bool drop(Direction& direction);

    TraceFile& m_file;
    Role m_role;
    Keeping m_keeping;
    Direction m_received, m_sent;
    MessageCollector m_collector{m_keeping};
    HTTPParser m_parser;
    std::optional<bool> m_server;  // not known before it is asked for
    std::uint64_t m_messages = 0;
    // Of what was sent, and of what was received.
    std::uint64_t m_before[2] = {0, 0};  // the number of the message before
    bool m_broken[2] = {false, false};   // whether it could not be read
};
