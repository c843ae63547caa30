#include "support/WriterCalls.h"

#include "foundation/ZULBufferedOutputStream.h"
#include "foundation/ZULChunkedOutputStream.h"

void WriterCalls::make(Call const& call) {
    int const number = call.number();
    if (call.is("chunked")) m_stream = std::make_unique<ZULChunkedOutputStream>(m_os, number);
    if (call.is("buffered")) m_stream = std::make_unique<ZULBufferedOutputStream>(m_os, number);
    m_stream ? makeOnStream(call) : makeOnNode(call);
    call.mustBeKnown();
}

void WriterCalls::makeOnStream(Call const& call) {
    std::string const& bytes = call.text;
    if (call.is("write")) m_stream->write(bytes.data(), static_cast<int>(bytes.size()));
    if (call.is("negative")) m_stream->write("x", -1);
    if (call.is("flush")) m_stream->flush();
    if (call.is("close")) m_stream->close();
    if (call.is("reset") || call.is("restart")) {
        auto* const encoder = dynamic_cast<ZULChunkedOutputStream*>(m_stream.get());
        encoder ? encoder->reset() : dynamic_cast<ZULBufferedOutputStream&>(*m_stream).reset();
    }
}

void WriterCalls::makeOnNode(Call const& call) {
    int const number = call.number();
    char const* const text = call.rest();
    HttpMsgNode* const node = m_parts.empty() ? m_root.get() : m_parts.back();
    HttpMsgNode* const outer = m_parts.size() > 1 ? m_parts[m_parts.size() - 2] : m_root.get();
    auto* const one = dynamic_cast<OnePieceHttpMsg*>(node);
    auto* const multi = dynamic_cast<MultipartHttpMsg*>(node);
    auto* const parent = dynamic_cast<MultipartHttpMsg*>(outer);

    if (call.is("one")) m_root = std::make_unique<OnePieceHttpMsg>(m_os, number);
    if (call.is("multi")) m_root = std::make_unique<MultipartHttpMsg>(m_os, number, text);
    if (call.is("request") || call.is("response") || call.is("restart")) m_parts.clear();
    if (call.is("request")) m_root->startRequest(text, number);
    if (call.is("response")) m_root->startResponse(number, text);
    if (call.is("restart")) m_root->reset();
    if (call.is("finish")) m_root->finish();
    if (call.is("header")) node->setHeader(call.first(), text);
    if (call.is("text")) node->setHeaderText(call.first(), text, call.restSize());
    if (call.is("headers")) node->writeHeaders();
    if (call.is("reset")) node->reset();
    if (call.is("write") && one) one->write(call.text.data(), static_cast<int>(call.text.size()));
    if (call.is("add") && multi) m_parts.push_back(multi->addOnePiece(number));
    if (call.is("addmulti") && multi) m_parts.push_back(multi->addMultiPart(number, text));
    if (call.is("addouter")) parent->addOnePiece(number);
    if (call.is("addmultiouter")) parent->addMultiPart(number, text);
    if (call.is("endnull")) parent->endPart(static_cast<OnePieceHttpMsg*>(nullptr));
    if (call.is("end") && !m_parts.empty()) {
        m_parts.pop_back();
        one ? parent->endPart(one) : parent->endPart(multi);
    }
}
