#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sender/HTTPMessageSender.h"

// Makes the calls that a table names, one a line as "operation: arguments" with escapes as in a
// CaseFile, on a node or on the innermost part open in it.
class WriterCalls {
public:
    explicit WriterCalls(ZULOutputStream& os) : m_os(os) { m_parts.reserve(3); }

    void make(std::string const& line);

private:
    struct Call;
    static std::map<std::string, void (*)(WriterCalls&, Call const&)> const& operations();

    // The root, for what ends its parts.
    HttpMsgNode& restarted();

    ZULOutputStream& m_os;
    std::unique_ptr<HttpMsgNode> m_root;
    std::vector<HttpMsgNode*> m_parts;
};
