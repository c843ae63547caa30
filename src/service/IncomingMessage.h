#pragma once

#include <string>

#include "parser/HTTPParser.h"
#include "service/KeptHeads.h"

namespace postwire {

// The events of a message that comes in: they go into the tree, or to the handler of the program
// where there is one, and leave the lines of each head beside it.
//
// Ownership: all is borrowed.
class IncomingMessage : public HTTPMOMMsgHandler {
protected:
    explicit IncomingMessage(KeptHeads& heads) : m_heads(heads) {}
    ~IncomingMessage() override;

    // This parser is to tell them, and must go first.
    void listenTo(HTTPParser& parser);

    void reset() override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;
    void endPart() override;
    void endMultiParts(char const* boundary) override;
    void endMessage() override;

    HTTPMsgHandler* m_target = nullptr;  // of the events, instead of the tree
    KeptHeads& m_heads;
    std::string m_name;  // of the header line whose event comes, in its letter case
};

}  // namespace postwire
