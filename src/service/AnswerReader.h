#pragma once

#include <string>

#include "foundation/ZULBufferedInputStream.h"

#include "service/AnswerData.h"
#include "service/ExchangeWatch.h"
#include "service/IncomingMessage.h"

namespace postwire {

// Reads one answer as the call of a client wants it: into the tree, into files, or to the handler
// of the program.
//
// Ownership: all is borrowed for one exchange.
// Raises: Code::malformed; Code::receive where the connection ended without an answer;
//   std::system_error where a file can't be written; what stream and handler raise.
class AnswerReader : private IncomingMessage {
public:
    AnswerReader(ClientOptions const& client, PostOptions const& call, ExchangeWatch& watch,
                 Answer::Data& answer);
    ~AnswerReader() override;

    void read(ZULBufferedInputStream& in);

    // Whether another exchange may follow on the connection.
    [[nodiscard]] bool keepAlive() const { return m_parser.keepAlive(); }

private:
    void setStatusCode(HTTPMessage::StatusCode code) override;
    void setStatusMessage(char const* text) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;

    void beginBody();
    void save(ZULInputStream& is, int length);
    [[noreturn]] void refuse(std::string const& text) const;

    PostOptions const& m_call;
    ExchangeWatch& m_watch;
    Answer::Data& m_answer;
    HTTPParser m_parser;
    bool m_inHead = true;
};

}  // namespace postwire
