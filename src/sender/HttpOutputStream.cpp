#include "sender/HttpOutputStream.h"

#include "foundation/GuardedAllocation.h"
#include "sender/HTTPMessageSender.h"

static char const kSourceFile[] = "HTTPMessageSender";

namespace {

// Runs a write of which nothing is tried again: where it raises, the body is given up.
template <class Write>
void writeOnce(HttpOutputStream& body, Write const& write) {
    struct Loss {
        ~Loss() {
            if (of) of->giveUp();
        }
        HttpOutputStream* of;
    } loss{&body};
    write();
    loss.of = nullptr;
}

}  // namespace

HttpOutputStream::~HttpOutputStream() = default;

// HttpNonChunkedOutputStream

HttpNonChunkedOutputStream::HttpNonChunkedOutputStream(HttpMsgNode* msg_node)
    : m_os_memory(1000, 1000), p_msg_node(msg_node), headers_written(0) {}

HttpNonChunkedOutputStream::~HttpNonChunkedOutputStream() = default;

void HttpNonChunkedOutputStream::write(char const* data, int length) {
    m_os_memory.write(data, length);
}

void HttpNonChunkedOutputStream::flush() {
    if (m_os_memory.length() == 0) return;
    writeNodeHeaders();
    p_msg_node->write_upstream(m_os_memory.bytes(), m_os_memory.length());
    m_os_memory.reset();
}

void HttpNonChunkedOutputStream::close() { flush(); }

void HttpNonChunkedOutputStream::reset() {
    m_os_memory.reset();
    headers_written = 0;
}

void HttpNonChunkedOutputStream::startEmptyBody() {
    if (!headers_written && m_os_memory.length() == 0) writeNodeHeaders();
}

void HttpNonChunkedOutputStream::writeNodeHeaders() {
    QOR_ASSERT(p_msg_node);
    p_msg_node->setHeader("Content-Length", m_os_memory.length());
    p_msg_node->writeHeaders();
    headers_written = 1;
}

void HttpNonChunkedOutputStream::giveUp() {}

// HttpChunkedOutputStream

HttpChunkedOutputStream::HttpChunkedOutputStream(HttpMsgNode* msg_node, int chunksize)
    : m_os_chunked(nullptr), p_msg_node(msg_node), headers_written(0) {
    QOR_ASSERT(msg_node);
    ZULOutputStream* const theZULOutputStream = msg_node->p_os_upstream;
    QOR_ASSERT(theZULOutputStream);
    m_os_chunked = guardedNew<ZULChunkedOutputStream>(QORFileLocation(kSourceFile, __LINE__),
                                                      *theZULOutputStream, chunksize)
                       .release();
}

HttpChunkedOutputStream::~HttpChunkedOutputStream() { dropQuietly(m_os_chunked); }

void HttpChunkedOutputStream::write(char const* data, int length) {
    QOR_ASSERT(m_os_chunked);
    QOR_ASSERT(p_msg_node);
    if (!headers_written) writeNodeHeaders();
    m_os_chunked->write(data, length);
}

void HttpChunkedOutputStream::writeNodeHeaders() {
    headers_written = 1;
    writeOnce(*this, [this] { p_msg_node->writeHeaders(); });
}

void HttpChunkedOutputStream::flush() {
    QOR_ASSERT(m_os_chunked);
    m_os_chunked->flush();
}

void HttpChunkedOutputStream::close() {
    QOR_ASSERT(m_os_chunked);
    m_os_chunked->close();
}

// The encoder too: bytes of a body given up must not open the next one.
void HttpChunkedOutputStream::reset() {
    headers_written = 0;
    getChunkedStream()->reset();
}

void HttpChunkedOutputStream::startEmptyBody() {
    if (!headers_written) write("", 0);
}

void HttpChunkedOutputStream::giveUp() {
    m_os_chunked->giveUp();
    if (auto* const around = dynamic_cast<HttpOutputStream*>(p_msg_node->p_os_upstream))
        around->giveUp();
}

ZULChunkedOutputStream* HttpChunkedOutputStream::getChunkedStream() {
    QOR_ASSERT(m_os_chunked);
    return m_os_chunked;
}

// HttpDirectOutputStream

HttpDirectOutputStream::HttpDirectOutputStream(HttpMsgNode* msg_node, ZULOutputStream* os)
    : p_os_upstream(os),
      p_msg_node(msg_node),
      headers_written(0),
      m_chunk_line(256, 256),
      m_parent(nullptr) {
    if (msg_node) m_parent = dynamic_cast<HttpChunkedOutputStream*>(msg_node->p_os_upstream);
}

HttpDirectOutputStream::~HttpDirectOutputStream() = default;

void HttpDirectOutputStream::write(char const* data, int length) {
    QOR_ASSERT(p_msg_node);
    QOR_ASSERT(p_os_upstream);
    if (!headers_written) {
        headers_written = 1;
        writeOnce(*this, [this] {
            p_msg_node->writeHeaders();
            // The delimiter line and this header block wait in the parent's encoder; they must be
            // on the wire before the first chunk that goes past it.
            p_msg_node->p_os_upstream->flush();
        });
    }
    QOR_ASSERT(length > 0);
    if (m_parent) m_parent->getChunkedStream()->requireWhole();
    m_chunk_line.reset();
    m_chunk_line.setHexRadix(1);
    m_chunk_line << length << "\r\n";
    writeOnce(*this, [&] {
        p_os_upstream->write(m_chunk_line.str(), static_cast<int>(m_chunk_line.pcount()));
        p_os_upstream->write(data, length);
        p_os_upstream->write("\r\n", 2);
    });
}

void HttpDirectOutputStream::flush() {}

void HttpDirectOutputStream::close() {}

void HttpDirectOutputStream::reset() { headers_written = 0; }

void HttpDirectOutputStream::startEmptyBody() {}

void HttpDirectOutputStream::giveUp() {
    if (m_parent) m_parent->giveUp();
}
