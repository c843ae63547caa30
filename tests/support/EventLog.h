#pragma once

#include <string>

#include "parser/HTTPParser.h"

// What a parser told its handler, each event in brackets:
// "[reset][uri /svc][content-length: 3][content 3 abc][endMessage]". Bytes that don't print are
// escaped as in a .tree file, bodies are cut as there.
class EventLog : public HTTPMsgHandler {
public:
    std::string const& text() const { return m_text; }
    void clear() { m_text.clear(); }
    void note(std::string const& event);
    // Lets this event, "content 3", raise an HTTPException of code 1.
    void failAt(std::string const& event) { m_failAt = event; }

    void reset() override { note("reset"); }
    void setURI(char const* uri) override;
    void setStatusCode(HTTPMessage::StatusCode code) override;
    void setStatusMessage(char const* text) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override { note("startPart"); }
    void endPart() override { note("endPart"); }
    void endMultiParts(char const* boundary) override;
    void endMessage() override { note("endMessage"); }

private:
    std::string m_text;
    std::string m_failAt;
};

// The events of one parse, by parseRequest or parseResponse; then what it raised, as
// "[HTTPException 1010 processEntities +1]", +1 for one QOR_RETHROW, "[QOR_ASSERT(is);]", or
// "[ZULStreamException 2000]"; then the bytes it left, as "[left abc]". An HTTPException must
// carry its code's text as its one message, and method texts in its back-trace.
std::string parseEvents(HTTPParser& parser, void (HTTPParser::*parse)(ZULBufferedInputStream*),
                        std::string const& bytes, int step);
