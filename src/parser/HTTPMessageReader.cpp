#include "parser/HTTPMessageReader.h"

#include "foundation/QORThrowable.h"

static char const kSourceFile[] = "HTTPMessageReader";

HTTPMessageReader::HTTPMessageReader(ZULBufferedInputStream& is) : m_stream(is) {
    m_parser.setMsgHandler(&m_handler);
}

HTTPMessageReader::~HTTPMessageReader() = default;

// The results are written last: after a failed parse they are as they were.
void HTTPMessageReader::getRequest(HTTPMessage* msg, std::string* uri) {
    QOR_ASSERT(uri);
    m_handler.setMessage(msg);
    m_parser.parseRequest(&m_stream);
    *uri = m_handler.m_uri;
}

void HTTPMessageReader::getResponse(HTTPMessage* msg, HTTPMessage::StatusCode* status,
                                    std::string* status_message) {
    QOR_ASSERT(status);
    QOR_ASSERT(status_message);
    m_handler.setMessage(msg);
    m_parser.parseResponse(&m_stream);
    *status = m_handler.m_statusCode;
    *status_message = m_handler.m_statusMessage;
}

void HTTPMessageReader::setReadPolicy(HTTPReadPolicy const& policy) {
    m_parser.setReadPolicy(policy);
}

int HTTPMessageReader::getMinorVersion() const { return m_parser.getMinorVersion(); }

bool HTTPMessageReader::keepAlive() const { return m_parser.keepAlive(); }

void HTTPMessageReader::setContinueCallback(void (*callback)(void*), void* context) {
    m_parser.setContinueCallback(callback, context);
}
