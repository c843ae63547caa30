#include "support/WriterCalls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

#include "support/CaseFile.h"

void WriterCalls::make(std::string const& line) {
    struct Call {
        ZULOutputStream& os;
        std::unique_ptr<HttpMsgNode>& root;
        std::vector<HttpMsgNode*>& parts;
        OnePieceHttpMsg* one;  // the innermost open node, as what it is
        MultipartHttpMsg* multi;
        MultipartHttpMsg* parent;
        std::string args;
        int number;        // at the front of the arguments
        char const* text;  // behind their first word

        HttpMsgNode& node() const { return parts.empty() ? *root : *parts.back(); }
        HttpMsgNode& fresh() const {
            parts.clear();
            return *root;
        }
    };
    using C = Call const;
    static std::map<std::string, void (*)(C&)> const operations = {
        {"one", [](C& c) { c.root.reset(new OnePieceHttpMsg(c.os, c.number)); }},
        {"multi", [](C& c) { c.root.reset(new MultipartHttpMsg(c.os, c.number, c.text)); }},
        {"request", [](C& c) { c.fresh().startRequest(c.text, c.number); }},
        {"response", [](C& c) { c.fresh().startResponse(c.number, c.text); }},
        {"restart", [](C& c) { c.fresh().reset(); }},
        {"finish", [](C& c) { c.root->finish(); }},
        {"header",
         [](C& c) { c.node().setHeader(c.args.substr(0, c.args.find(' ')).c_str(), c.text); }},
        {"headers", [](C& c) { c.node().writeHeaders(); }},
        {"reset", [](C& c) { c.node().reset(); }},
        {"write", [](C& c) { c.one->write(c.args.data(), static_cast<int>(c.args.size())); }},
        {"add", [](C& c) { c.parts.push_back(c.multi->addOnePiece(c.number)); }},
        {"addmulti", [](C& c) { c.parts.push_back(c.multi->addMultiPart(c.number, c.text)); }},
        {"addouter", [](C& c) { c.parent->addOnePiece(c.number); }},
        {"addmultiouter", [](C& c) { c.parent->addMultiPart(c.number, c.text); }},
        {"endnull", [](C& c) { c.parent->endPart(static_cast<OnePieceHttpMsg*>(nullptr)); }},
        {"end",
         [](C& c) {
             c.one ? c.parent->endPart(c.one) : c.parent->endPart(c.multi);
             c.parts.pop_back();
         }},
    };
    std::size_t const colon = line.find(':');
    std::string const args = colon + 2 < line.size() ? unescaped(line.substr(colon + 2)) : "";
    char const* const text = args.c_str() + std::min(args.find(' '), args.size() - 1) + 1;
    HttpMsgNode* const node = m_parts.empty() ? m_root.get() : m_parts.back();
    HttpMsgNode* const outer = m_parts.size() > 1 ? m_parts[m_parts.size() - 2] : m_root.get();
    operations.at(line.substr(0, colon))(
        {m_os, m_root, m_parts, dynamic_cast<OnePieceHttpMsg*>(node),
         dynamic_cast<MultipartHttpMsg*>(node), dynamic_cast<MultipartHttpMsg*>(outer), args,
         std::atoi(args.c_str()), std::strcmp(text, "(null)") == 0 ? nullptr : text});
}
