#pragma once

#include <memory>
#include <vector>

#include "sender/HTTPMessageSender.h"
#include "support/Transcript.h"

// Makes the calls of a transcript on a message node, or on the innermost part open in it, or on an
// output stream.
class WriterCalls {
public:
    explicit WriterCalls(ZULOutputStream& os) : m_os(os) {}

    void make(Call const& call);

private:
    void makeOnStream(Call const& call);
    void makeOnNode(Call const& call);

    ZULOutputStream& m_os;
    std::unique_ptr<ZULOutputStream> m_stream;
    std::unique_ptr<HttpMsgNode> m_root;
    std::vector<HttpMsgNode*> m_parts;
};
