#include "support/WriterCalls.h"

#include "support/CaseFile.h"

struct WriterCalls::Call {
    HttpMsgNode* node;
    OnePieceHttpMsg* one;
    MultipartHttpMsg* multi;
    MultipartHttpMsg* parent;
    std::string args, word;  // the arguments, and the first of them
    int number;              // that one as a number
    char const* text;        // those behind it
};

HttpMsgNode& WriterCalls::restarted() {
    m_parts.clear();
    return *m_root;
}

std::map<std::string, void (*)(WriterCalls&, WriterCalls::Call const&)> const&
WriterCalls::operations() {
    using W = WriterCalls;
    using C = Call const;
    static std::map<std::string, void (*)(W&, C&)> const table = {
        {"one", [](W& w, C& c) { w.m_root = std::make_unique<OnePieceHttpMsg>(w.m_os, c.number); }},
        {"multi",
         [](W& w, C& c) {
             w.m_root = std::make_unique<MultipartHttpMsg>(w.m_os, c.number, c.text);
         }},
        {"request", [](W& w, C& c) { w.restarted().startRequest(c.text, c.number); }},
        {"response", [](W& w, C& c) { w.restarted().startResponse(c.number, c.text); }},
        {"restart", [](W& w, C&) { w.restarted().reset(); }},
        {"finish", [](W& w, C&) { w.m_root->finish(); }},
        {"drop", [](W& w, C&) { w.m_parts.clear(), w.m_root.reset(); }},
        {"header", [](W&, C& c) { c.node->setHeader(c.word.c_str(), c.text); }},
        {"number", [](W&, C& c) { c.node->setHeader(c.word.c_str(), std::atoi(c.text)); }},
        {"headers", [](W&, C& c) { c.node->writeHeaders(); }},
        {"reset", [](W&, C& c) { c.node->reset(); }},
        {"write", [](W&, C& c) { c.one->write(c.args.data(), static_cast<int>(c.args.size())); }},
        {"add", [](W& w, C& c) { w.m_parts.push_back(c.multi->addOnePiece(c.number)); }},
        {"addmulti",
         [](W& w, C& c) { w.m_parts.push_back(c.multi->addMultiPart(c.number, c.text)); }},
        {"addouter", [](W&, C& c) { c.parent->addOnePiece(c.number); }},
        {"addmultiouter", [](W&, C& c) { c.parent->addMultiPart(c.number, c.text); }},
        {"end",
         [](W& w, C& c) {
             c.one ? c.parent->endPart(c.one) : c.parent->endPart(c.multi);
             w.m_parts.pop_back();
         }},
        {"endnull", [](W&, C& c) { c.parent->endPart(static_cast<OnePieceHttpMsg*>(nullptr)); }},
    };
    return table;
}

void WriterCalls::make(std::string const& line) {
    std::size_t const colon = line.find(':');
    std::string const args = colon + 2 < line.size() ? unescaped(line.substr(colon + 2)) : "";
    std::string const word = args.substr(0, args.find(' '));
    std::string const rest = args.size() > word.size() ? args.substr(word.size() + 1) : "";
    HttpMsgNode* const node = m_parts.empty() ? m_root.get() : m_parts.back();
    HttpMsgNode* const outer = m_parts.size() > 1 ? m_parts[m_parts.size() - 2] : m_root.get();
    operations().at(line.substr(0, colon))(
        *this, {node, dynamic_cast<OnePieceHttpMsg*>(node), dynamic_cast<MultipartHttpMsg*>(node),
                dynamic_cast<MultipartHttpMsg*>(outer), args, word, std::atoi(word.c_str()),
                rest == "(null)" ? nullptr : rest.c_str()});
}
