#pragma once

#include <array>
#include <vector>

#include "parser/HTTPMsgHandler.h"
#include "tools/trace/TracedMessage.h"

// Keeps of a message that is read as much as was asked for.
class MessageCollector : public HTTPMsgHandler {
public:
    explicit MessageCollector(Keeping const& keeping);
    MessageCollector(MessageCollector const&) = delete;

    // Both are borrowed, for one message.
    void collectInto(TracedPart& message);

    // How far a parse came that failed.
    bool startLineRead() const { return m_startLineRead; }
    bool inBody() const { return m_inBody; }
    std::vector<std::size_t> const& place() const { return m_place; }
    TracedPart& current() { return *m_open.back(); }

    void reset() override {}
    void setURI(char const* uri) override;
    void setStatusCode(HTTPMessage::StatusCode code) override;
    void setStatusMessage(char const* text) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;
    void endPart() override;
    void endMultiParts(char const* boundary) override;
    void endMessage() override {}

private:
    static constexpr int kBlock = 65536;

    Keeping const& m_keeping;
    std::vector<char> m_block;
    std::vector<TracedPart*> m_open;  // the message, and the parts that are being read
    std::vector<std::size_t> m_place;
    TracedPart m_notKept;
    std::size_t m_parts = 0;
    std::size_t m_excerpts = 0;     // bytes
    std::size_t m_fields = 0;       // bytes of them in parts
    std::size_t m_unkeptDepth = 0;  // open parts that are only counted
    bool m_startLineRead = false;
    bool m_inBody = false;
};
