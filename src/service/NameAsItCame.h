#pragma once

#include <string>

#include "parser/HTTPParser.h"

namespace postwire::internal {

// What an event leaves out of a field's name: its letter case. Not installed: for the service
// floor, which keeps the lines of each head beside the tree.
struct NameAsItCame {
    // Before each event of a header line, the parser leaves its name there.
    static void keep(HTTPParser& parser, std::string& name) { parser.m_nameAsItCame = &name; }
};

}  // namespace postwire::internal
