#pragma once

#include <optional>
#include <string>

#include "foundation/ZULBufferedOutputStream.h"

#include "tools/common/Deadline.h"
#include "tools/common/TracedSocket.h"
#include "tools/common/WholeMessage.h"
#include "tools/serve/AnswerFields.h"
#include "tools/serve/RequestReader.h"

class Server;

// The time limits of one connection. While it is idle it also ends when the server wants it to, but
// not before it has waited once: what a client had sent by then is served.
class ConnectionDeadline : public Deadline {
public:
    explicit ConnectionDeadline(Server const& server) : m_server(server) {}

    void startIdle();
    void startRequest();
    void startAnswer() { startRequest(); }
    void check() const override;

private:
    Server const& m_server;
    Clock::time_point m_idleUntil = Clock::time_point::max();
};

// One connection of a client, from its first request to its end.
//
// Ownership: takes the descriptor over.
class ServedConnection {
public:
    ServedConnection(Server& server, int descriptor);
    ServedConnection(ServedConnection const&) = delete;
    ServedConnection& operator=(ServedConnection const&) = delete;
    ~ServedConnection();

    // Reads and answers requests until either side wants to end. Raises SoapSocketException when
    // the client is gone, TimeLimitPassed when it is idle for too long or does not take its answer.
    void run();

private:
    // What a client is told instead of an answer.
    struct Refusal {
        int status;
        std::string text;
    };

    bool serveRequest();
    std::optional<Refusal> read();
    std::optional<Refusal> answer();
    AnswerFields ownFields() const;
    void writeAnswer(std::string const& type, std::string const& body);
    void writeEcho();
    void refuse(Refusal const& refusal);
    void discardInput();

    Server& m_server;
    int m_descriptor;
    TracedSocket m_socket;
    ConnectionDeadline m_deadline;
    DeadlineInputStream m_in;
    DeadlineOutputStream m_out;
    ZULBufferedOutputStream m_answer;  // so that an answer leaves in one send
    RequestReader m_reader;
    WholeOnePiece m_node;  // for answers with one body and a length
    Request m_request;
    long long m_writtenBefore = 0;  // the answer
};
