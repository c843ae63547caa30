#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "message/HTTPMessage.h"
#include "tools/trace/TraceFile.h"

// One message of a traced connection.
struct TracedMessage {
    bool request;
    bool read;                          // received by the traced side
    std::string_view bytes;             // as they were on the wire
    std::string_view head;              // start line and header lines
    std::size_t firstBlock;             // of the trace, by which messages are put in order
    std::size_t calls;                  // sends or receives that carried a byte of it
    std::unique_ptr<HTTPMessage> tree;  // null for a message without a body, such as 100 Continue
    std::string error;                  // why reading stopped here; empty for a whole message
};

// The messages of a trace, both directions joined in the order in which they began.
class Conversation {
public:
    enum class Role { Guess, Client, Server };

    // With Role::Guess the side whose bytes begin with "HTTP/" is the server.
    Conversation(TraceFile const& trace, Role role);
    Conversation(Conversation const&) = delete;
    Conversation& operator=(Conversation const&) = delete;

    std::vector<TracedMessage> const& messages() const { return m_messages; }

    // Whether the traced side is the server.
    bool isServer() const { return m_server; }

private:
    // One direction: its bytes, and where each block of the trace begins in them.
    struct Direction {
        std::string bytes;
        std::vector<std::size_t> starts;
        std::vector<std::size_t> blocks;
    };

    void readMessages(Direction const& direction, bool read);
    TracedMessage readMessage(Direction const& direction, std::size_t begin, bool request) const;
    static void locate(Direction const& direction, std::size_t begin, TracedMessage& message);

    Direction m_received;
    Direction m_sent;
    bool m_server = false;
    std::vector<TracedMessage> m_messages;
};
