#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sender/HTTPMessageSender.h"

// Makes the calls that a table names, one a line as "operation: arguments" with escapes as in a
// CaseFile, on a node or on the innermost part open in it.
class WriterCalls {
public:
    explicit WriterCalls(ZULOutputStream& os) : m_os(os) {}

    void make(std::string const& line);

private:
    ZULOutputStream& m_os;
    std::unique_ptr<HttpMsgNode> m_root;
    std::vector<HttpMsgNode*> m_parts;
};
