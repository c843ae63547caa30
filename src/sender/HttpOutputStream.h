#pragma once

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULMemoryOutputStream.h"
#include "foundation/ZULOutputStream.h"

class HttpMsgNode;

// This machine's Internet name, read when the first request header needs it and never again; empty
// until then.
extern char host_name[256];

// The body of a message node: frames the bytes and decides when the node's header block goes out.
//
// Ownership: each node makes one and deletes it; the node is borrowed.
class HttpOutputStream : public ZULOutputStream {
public:
    ~HttpOutputStream() override;

    // Forgets the message under way.
    virtual void reset() = 0;

    // Writes the node's header block for a body that ends without a byte; nothing where the block
    // has gone out or bytes are waiting that will take it along.
    virtual void startEmptyBody() = 0;

    // Breaks the chunked body that lost bytes of this one, and those around it: none of them ends
    // well before its node is reset. A body with a length knows no such mark.
    virtual void giveUp() = 0;
};

// Holds the whole body until flush, because Content-Length goes before it.
//
// Rule: every flush that finds bytes writes a complete header block, so a message is flushed once,
//   by close.
class HttpNonChunkedOutputStream : public HttpOutputStream {
public:
    explicit HttpNonChunkedOutputStream(HttpMsgNode* msg_node);
    ~HttpNonChunkedOutputStream() override;

    void write(char const* data, int length) override;
    void flush() override;
    void close() override;
    void reset() override;
    void startEmptyBody() override;
    void giveUp() override;

protected:
    // Content-Length for what is held, then the header block.
    void writeNodeHeaders();

    ZULMemoryOutputStream m_os_memory;
    HttpMsgNode* p_msg_node;
    int headers_written;
};

// Hands the body to a chunk encoder over the node's upstream. The header block goes to the
// upstream itself, before the first byte for the encoder.
class HttpChunkedOutputStream : public HttpOutputStream {
public:
    HttpChunkedOutputStream(HttpMsgNode* msg_node, int chunksize);
    ~HttpChunkedOutputStream() override;

    // A first write of 0 bytes writes the header block too.
    void write(char const* data, int length) override;
    void flush() override;
    void close() override;
    void reset() override;
    void startEmptyBody() override;
    void giveUp() override;

    ZULChunkedOutputStream* getChunkedStream();

protected:
    // Apart from write, which else makes room for a guard at each call.
    [[gnu::noinline]] void writeNodeHeaders();

    ZULChunkedOutputStream* m_os_chunked;  // owned
    HttpMsgNode* p_msg_node;
    int headers_written;
};

// Writes each block as one chunk of the parent's body, past the parent's encoder: the bytes go
// from the caller's memory to the stream beneath it. The last chunk is the parent's to write.
class HttpDirectOutputStream : public HttpOutputStream {
public:
    // `os` is the stream beneath the encoder of the node's upstream, the parent's body.
    HttpDirectOutputStream(HttpMsgNode* msg_node, ZULOutputStream* os);
    ~HttpDirectOutputStream() override;

    void write(char const* data, int length) override;
    void flush() override;
    void close() override;
    void reset() override;

    // Nothing: a direct part without bytes leaves no trace behind its delimiter line.
    void startEmptyBody() override;
    void giveUp() override;

protected:
    ZULOutputStream* p_os_upstream;
    HttpMsgNode* p_msg_node;
    int headers_written;
    QORByteBuffer m_chunk_line;
    HttpChunkedOutputStream* m_parent;
};
