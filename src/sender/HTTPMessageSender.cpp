#include "sender/HTTPMessageSender.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "foundation/AsciiText.h"
#include "foundation/GuardedAllocation.h"
#include "sender/HttpOutputStream.h"
#include "socket/SoapSocket.h"

static char const kSourceFile[] = "HTTPMessageSender";

char host_name[256] = "";

namespace {

using HostName = char[sizeof host_name];

bool isPublished() { return __atomic_load_n(host_name, __ATOMIC_ACQUIRE) != '\0'; }

// The first byte comes last: whoever sees it sees all of the name. No one waits: a thread that
// finds another one at it has a reading of its own.
void publish(HostName const& name) {
    static std::atomic_flag busy = ATOMIC_FLAG_INIT;
    if (busy.test_and_set(std::memory_order_acquire)) return;
    if (!isPublished()) {
        std::memcpy(host_name + 1, name + 1, sizeof name - 1);
        __atomic_store_n(host_name, name[0], __ATOMIC_RELEASE);
    }
    busy.clear(std::memory_order_release);
}

// A try that raises leaves the place empty, and the next caller tries again.
char const* readMachineName(HostName& own) {
    SoapSocketInit const sockets;
    std::memset(own, 0, sizeof own);
    SoapSocket::GetInternetMachineName(own, sizeof own - 1);
    publish(own);
    return own;
}

template <std::size_t N>
void append(QORByteBuffer& buffer, char const (&literal)[N]) {
    buffer.appendChars(literal, N - 1);
}

void writeAll(ZULOutputStream& os, QORByteBuffer const& bytes) {
    os.write(bytes.str(), static_cast<int>(bytes.pcount()));
}

// That it can't end its line.
bool isOneLine(std::string_view text) {
    constexpr std::string_view kEnders("\r\n\0", 3);
    return text.find_first_of(kEnders) == std::string_view::npos;
}

char const* requiredBoundary(char const* boundary) {
    QOR_ASSERT(boundary);
    return boundary;
}

}  // namespace

// HttpMsgNode

HttpMsgNode::HttpMsgNode(ZULOutputStream& os, int chunksize)
    : p_os_upstream(&os),
      p_os_content(nullptr),
      chunked(chunksize > 0),
      m_line(256, 256),
      m_block(1024, 1024),
      m_number(32, 32) {
    QORFileLocation const here(kSourceFile, __LINE__);
    if (chunksize > 0) {
        p_os_content = guardedNew<HttpChunkedOutputStream>(here, this, chunksize).release();
    } else if (chunksize == 0) {
        p_os_content = guardedNew<HttpNonChunkedOutputStream>(here, this).release();
    } else {
        auto* const chunkedStream = dynamic_cast<HttpChunkedOutputStream*>(p_os_upstream);
        QOR_ASSERT(chunkedStream);
        ZULOutputStream& beneath = chunkedStream->getChunkedStream()->getOutputStream();
        p_os_content = guardedNew<HttpDirectOutputStream>(here, this, &beneath).release();
    }
}

HttpMsgNode::~HttpMsgNode() { dropQuietly(p_os_content); }

void HttpMsgNode::finish() {}

void HttpMsgNode::reset() {
    QOR_ASSERT(p_os_content);
    headers.reset();
    p_os_content->reset();
}

void HttpMsgNode::setRequestHeaders() {
    HostName own;
    setHeader("Host", isPublished() ? host_name : readMachineName(own));
    if (chunked) setHeader("Transfer-Encoding", "chunked");
}

void HttpMsgNode::setResponseHeaders() {
    if (chunked) setHeader("Transfer-Encoding", "chunked");
}

void HttpMsgNode::startRequest(char const* uri, int http10) {
    QOR_ASSERT(uri);
    reset();
    m_line.reset();
    append(m_line, "POST ");
    m_line << uri << (http10 ? " HTTP/1.0\r\n" : " HTTP/1.1\r\n");
    writeAll(*p_os_upstream, m_line);
    setRequestHeaders();
}

void HttpMsgNode::startResponse(int code, char const* msg) {
    QOR_ASSERT(msg);
    reset();
    m_line.reset();
    append(m_line, "HTTP/1.1 ");
    m_line << code << ' ' << msg;
    append(m_line, "\r\n");
    writeAll(*p_os_upstream, m_line);
    setResponseHeaders();
}

void HttpMsgNode::setHeader(char const* name, char const* value) { headers.addLine(name, value); }

void HttpMsgNode::setHeader(char const* name, int value) {
    m_number.reset();
    m_number << value;
    setHeader(name, m_number.str());
}

void HttpMsgNode::setHeaderText(char const* name, char const* text, int length) {
    QOR_ASSERT(name);
    QOR_ASSERT(isToken(name));
    QOR_ASSERT(text);
    QOR_ASSERT(length >= 0);
    std::string const line(text, static_cast<std::size_t>(length));
    QOR_ASSERT(isOneLine(line));
    HTTPHeader header(line.c_str());
    headers.moveHeader(name, header);
}

void HttpMsgNode::writeHeaders() {
    QOR_ASSERT(p_os_upstream);
    m_block.reset();
    headers.dump(m_block);
    append(m_block, "\r\n");
    writeAll(*p_os_upstream, m_block);
}

void HttpMsgNode::write_upstream(char const* data, int length) {
    QOR_ASSERT(p_os_upstream);
    p_os_upstream->write(data, length);
}

// OnePieceHttpMsg

OnePieceHttpMsg::OnePieceHttpMsg(ZULOutputStream& os, int chunksize) : HttpMsgNode(os, chunksize) {
    HttpMsgNode::setRequestHeaders();
}

OnePieceHttpMsg::~OnePieceHttpMsg() = default;

void OnePieceHttpMsg::finish() {
    QOR_ASSERT(p_os_content);
    p_os_content->startEmptyBody();
    p_os_content->close();
}

void OnePieceHttpMsg::reset() { HttpMsgNode::reset(); }

void OnePieceHttpMsg::write(char const* data, int length) {
    QOR_ASSERT(p_os_content);
    p_os_content->write(data, length);
}

// MultipartHttpMsg

MultipartHttpMsg::MultipartHttpMsg(ZULOutputStream& os, int chunksize, char const* part_boundary)
    : HttpMsgNode(os, chunksize),
      boundary(requiredBoundary(part_boundary)),
      p_current_part(nullptr) {
    MultipartHttpMsg::setRequestHeaders();
}

// The part goes before the base drops the body stream that the part writes to.
MultipartHttpMsg::~MultipartHttpMsg() { dropQuietly(p_current_part); }

void MultipartHttpMsg::finish() {
    QOR_ASSERT(p_os_content);
    writePartBoundary(1);
    p_os_content->close();
}

void MultipartHttpMsg::reset() {
    HttpMsgNode::reset();
    std::unique_ptr<HttpMsgNode>(std::exchange(p_current_part, nullptr)).reset();
}

void MultipartHttpMsg::setRequestHeaders() {
    HttpMsgNode::setRequestHeaders();
    stageContentType("; type=\"text/xml\"");
}

void MultipartHttpMsg::setResponseHeaders() {
    HttpMsgNode::setResponseHeaders();
    stageContentType("");
}

// RFC 2387 asks for the root part's type; a response leaves it out.
void MultipartHttpMsg::stageContentType(char const* type) {
    m_line.reset();
    m_line << "multipart/related; boundary=\"" << boundary.c_str() << '"' << type;
    setHeader("Content-Type", m_line.str());
}

OnePieceHttpMsg* MultipartHttpMsg::addOnePiece(int chunksize) {
    QOR_ASSERT(!p_current_part);
    QOR_ASSERT(chunksize != -1 || chunked);
    writePartBoundary(0);
    OnePieceHttpMsg* const part =
        guardedNew<OnePieceHttpMsg>(QORFileLocation(kSourceFile, __LINE__), *p_os_content,
                                    chunksize)
            .release();
    p_current_part = part;
    return part;
}

MultipartHttpMsg* MultipartHttpMsg::addMultiPart(int chunksize, char const* part_boundary) {
    QOR_ASSERT(!p_current_part);
    writePartBoundary(0);
    MultipartHttpMsg* const part =
        guardedNew<MultipartHttpMsg>(QORFileLocation(kSourceFile, __LINE__), *p_os_content,
                                     chunksize, part_boundary)
            .release();
    p_current_part = part;
    return part;
}

void MultipartHttpMsg::endPart(OnePieceHttpMsg* part) { endOpenPart(part); }

void MultipartHttpMsg::endPart(MultipartHttpMsg* part) { endOpenPart(part); }

void MultipartHttpMsg::endOpenPart(HttpMsgNode* part) {
    QOR_ASSERT(p_current_part == part);
    QOR_ASSERT(part);
    part->finish();
    std::unique_ptr<HttpMsgNode>(std::exchange(p_current_part, nullptr)).reset();
}

void MultipartHttpMsg::writePartBoundary(int last) {
    QOR_ASSERT(p_os_content);
    m_line.reset();
    append(m_line, "\r\n--");
    m_line << boundary.c_str() << (last ? "--\r\n" : "\r\n");
    writeAll(*p_os_content, m_line);
}
