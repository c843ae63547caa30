#include "service/IncomingMessage.h"

#include "message/LineAsItCame.h"
#include "service/NameAsItCame.h"

namespace postwire {

IncomingMessage::~IncomingMessage() = default;

void IncomingMessage::listenTo(HTTPParser& parser) {
    parser.setMsgHandler(this);
    internal::NameAsItCame::keep(parser, m_name);
}

void IncomingMessage::reset() {
    m_heads.begin();
    HTTPMOMMsgHandler::reset();
    if (m_target) m_target->reset();
}

void IncomingMessage::header(char const* name, HTTPHeader* value) {
    m_heads.add(m_name, internal::LineAsItCame::text(*value));
    if (m_target) return m_target->header(name, value);
    HTTPMOMMsgHandler::header(name, value);
}

void IncomingMessage::content(ZULInputStream& is, int length) {
    if (m_target) return m_target->content(is, length);
    HTTPMOMMsgHandler::content(is, length);
}

void IncomingMessage::content(ZULInputStream& is) {
    if (m_target) return m_target->content(is);
    HTTPMOMMsgHandler::content(is);
}

void IncomingMessage::startMultiParts(char const* boundary) {
    if (m_target) return m_target->startMultiParts(boundary);
    HTTPMOMMsgHandler::startMultiParts(boundary);
}

void IncomingMessage::startPart() {
    m_heads.beginPart();
    if (m_target) return m_target->startPart();
    HTTPMOMMsgHandler::startPart();
}

void IncomingMessage::endPart() {
    if (m_target) return m_target->endPart();
    HTTPMOMMsgHandler::endPart();
}

void IncomingMessage::endMultiParts(char const* boundary) {
    if (m_target) return m_target->endMultiParts(boundary);
    HTTPMOMMsgHandler::endMultiParts(boundary);
}

void IncomingMessage::endMessage() {
    if (m_target) return m_target->endMessage();
    HTTPMOMMsgHandler::endMessage();
}

}  // namespace postwire
