#pragma once

#include <string>

#include "foundation/ZULBufferedInputStream.h"

#include "parser/HTTPParser.h"
#include "service/AnswerData.h"
#include "service/ExchangeWatch.h"

namespace postwire {

// Reads one answer as the call of a client wants it: into the tree, into files, or to the handler
// of the program.
//
// Ownership: all is borrowed for one exchange.
// Raises: Code::malformed; Code::receive where the connection ended without an answer;
//   std::system_error where a file can't be written; what stream and handler raise.
class AnswerReader : private HTTPMOMMsgHandler {
public:
    AnswerReader(ClientOptions const& client, PostOptions const& call, ExchangeWatch& watch,
                 Answer::Data& answer);
    ~AnswerReader() override;

    void read(ZULBufferedInputStream& in);

    // Whether another exchange may follow on the connection.
    [[nodiscard]] bool keepAlive() const { return m_parser.keepAlive(); }

private:
    void reset() override;
    void setStatusCode(HTTPMessage::StatusCode code) override;
    void setStatusMessage(char const* text) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;
    void endPart() override;
    void endMultiParts(char const* boundary) override;
    void endMessage() override;

    void beginBody();
    void save(ZULInputStream& is, int length);
    [[noreturn]] void refuse(std::string const& text) const;

    PostOptions const& m_call;
    ExchangeWatch& m_watch;
    Answer::Data& m_answer;
    HTTPMsgHandler* const m_target;  // of the events, instead of the tree
    HTTPParser m_parser;
    bool m_inHead = true;
};

}  // namespace postwire
