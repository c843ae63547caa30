#include "support/WriterCalls.h"

#include <algorithm>
#include <cstdlib>

#include "support/CaseFile.h"

void WriterCalls::make(std::string const& line) {
    std::size_t const colon = line.find(':');
    std::string const op = line.substr(0, colon);
    std::string const args = colon + 2 < line.size() ? unescaped(line.substr(colon + 2)) : "";
    std::size_t const blank = std::min(args.find(' '), args.size());
    std::string const first = args.substr(0, blank);
    int const number = std::atoi(first.c_str());
    std::string const rest = args.substr(blank).erase(0, 1);
    char const* const text = rest == "(null)" ? nullptr : rest.c_str();

    HttpMsgNode* const node = m_parts.empty() ? m_root.get() : m_parts.back();
    HttpMsgNode* const outer = m_parts.size() > 1 ? m_parts[m_parts.size() - 2] : m_root.get();
    auto* const one = dynamic_cast<OnePieceHttpMsg*>(node);
    auto* const multi = dynamic_cast<MultipartHttpMsg*>(node);
    auto* const parent = dynamic_cast<MultipartHttpMsg*>(outer);

    if (op == "one") m_root = std::make_unique<OnePieceHttpMsg>(m_os, number);
    if (op == "multi") m_root = std::make_unique<MultipartHttpMsg>(m_os, number, text);
    if (op == "request" || op == "response" || op == "restart") m_parts.clear();
    if (op == "request") m_root->startRequest(text, number);
    if (op == "response") m_root->startResponse(number, text);
    if (op == "restart") m_root->reset();
    if (op == "finish") m_root->finish();
    if (op == "header") node->setHeader(first.c_str(), text);
    if (op == "headers") node->writeHeaders();
    if (op == "reset") node->reset();
    if (op == "write" && one) one->write(args.data(), static_cast<int>(args.size()));
    if (op == "add" && multi) m_parts.push_back(multi->addOnePiece(number));
    if (op == "addmulti" && multi) m_parts.push_back(multi->addMultiPart(number, text));
    if (op == "addouter") parent->addOnePiece(number);
    if (op == "addmultiouter") parent->addMultiPart(number, text);
    if (op == "endnull") parent->endPart(static_cast<OnePieceHttpMsg*>(nullptr));
    if (op == "end" && !m_parts.empty()) {
        m_parts.pop_back();
        one ? parent->endPart(one) : parent->endPart(multi);
    }
}
