#include <algorithm>
#include <memory>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORThrowable.h"
#include "foundation/ZULInputStream.h"

#include "foundation/GuardedAllocation.h"
#include "parser/HTTPParser.h"

static char const kSourceFile[] = "HTTPParser";

static constexpr int kFirstRoom = 256;  // of a body, by contract

HTTPMOMMsgHandler::HTTPMOMMsgHandler() { HTTPMOMMsgHandler::reset(); }

HTTPMOMMsgHandler::~HTTPMOMMsgHandler() {
    if (m_pCurrentMessage != m_pRootMessage) dropQuietly(m_pCurrentMessage);
}

void HTTPMOMMsgHandler::setMessage(HTTPMessage* msg) {
    // What the stack names belongs to the tree before; a part that no parent holds yet is ours.
    m_parentStack.clear();
    std::unique_ptr<HTTPMessage> const abandoned(
        m_pCurrentMessage == m_pRootMessage ? nullptr : m_pCurrentMessage);
    m_pRootMessage = m_pCurrentMessage = msg;
}

void HTTPMOMMsgHandler::reset() {
    setMessage(m_pRootMessage);
    if (m_pRootMessage) m_pRootMessage->reset();
}

void HTTPMOMMsgHandler::setURI(char const* uri) { m_uri = uri; }

void HTTPMOMMsgHandler::setStatusCode(HTTPMessage::StatusCode code) { m_statusCode = code; }

void HTTPMOMMsgHandler::setStatusMessage(char const* text) { m_statusMessage = text; }

void HTTPMOMMsgHandler::header(char const* name, HTTPHeader* value) {
    QOR_ASSERT(m_pCurrentMessage);
    m_pCurrentMessage->m_headers.addLine(name, value);
}

void HTTPMOMMsgHandler::content(ZULInputStream& is, int length) {
    QOR_ASSERT(m_pCurrentMessage);
    // The length is only declared, and may be far from what comes: room is taken for it as far as
    // a small body goes, so that that one is not moved.
    is.readFully(contentBuffer(std::clamp(length, kFirstRoom, 4 * kFirstRoom)), length);
}

void HTTPMOMMsgHandler::content(ZULInputStream& is) {
    QOR_ASSERT(m_pCurrentMessage);
    QORByteBuffer& bytes = contentBuffer(kFirstRoom);
    while (is.read(bytes, 4096) != -1) {
    }
}

QORByteBuffer& HTTPMOMMsgHandler::contentBuffer(int room) {
    QORByteBuffer*& content = m_pCurrentMessage->m_pContent;
    if (!content) {
        QORFileLocation const here(kSourceFile, __LINE__);
        content = guardedNew<QORByteBuffer>(here, static_cast<unsigned int>(room), 256U).release();
    }
    return *content;
}

void HTTPMOMMsgHandler::startMultiParts(char const* boundary) {
    QOR_ASSERT(m_pCurrentMessage);
    m_pCurrentMessage->setBoundary(boundary);
    // Room first: once the parent holds the part, nothing may fail until we have let go of it.
    m_parentStack.reserve(m_parentStack.size() + 1);
    if (!m_parentStack.empty()) m_parentStack.back()->addChild(m_pCurrentMessage);
    m_parentStack.push_back(m_pCurrentMessage);
    m_pCurrentMessage = nullptr;
}

void HTTPMOMMsgHandler::startPart() {
    QOR_ASSERT(!m_pCurrentMessage);
    m_pCurrentMessage = guardedNew<HTTPMessage>(QORFileLocation(kSourceFile, __LINE__)).release();
}

void HTTPMOMMsgHandler::endPart() {
    if (!m_pCurrentMessage) return;
    QOR_ASSERT(!m_parentStack.empty());
    m_parentStack.back()->addChild(m_pCurrentMessage);
    m_pCurrentMessage = nullptr;
}

void HTTPMOMMsgHandler::endMultiParts(char const*) {
    QOR_ASSERT(!m_parentStack.empty());
    m_parentStack.pop_back();
}

void HTTPMOMMsgHandler::endMessage() { QOR_ASSERT(m_parentStack.empty()); }
