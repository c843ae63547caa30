// POCO Net, two ways to read:
//   poco_server   what HTTPServer does: HTTPHeaderInputStream, then a fixed-length or chunked
//                 stream over the server side of a connection, whose socket reads from memory
//   poco_istream  HTTPRequest::read on a memory istream, body by istream::read; no chunked
// Multipart bodies are split with MultipartReader into a tree of MessageHeader + string.
#include "cases.hpp"

#include <Poco/MemoryStream.h>
#include <Poco/Net/HTTPChunkedStream.h>
#include <Poco/Net/HTTPFixedLengthStream.h>
#include <Poco/Net/HTTPHeaderStream.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerSession.h>
#include <Poco/Net/MultipartReader.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <Poco/NullStream.h>
#include <Poco/StreamCopier.h>

#include <cstring>
#include <memory>

namespace bench {
namespace {

using namespace Poco::Net;

// A socket whose bytes come from and go to memory.
class MemorySocketImpl : public StreamSocketImpl {
public:
    std::string_view in;
    std::string* out = nullptr;

    int receiveBytes(void* to, int length, int) override {
        std::size_t n = std::min<std::size_t>(std::size_t(length), in.size());
        std::memcpy(to, in.data(), n);
        in.remove_prefix(n);
        return int(n);
    }
    int sendBytes(const void* from, int length, int) override {
        out->append(static_cast<const char*>(from), std::size_t(length));
        return length;
    }
    void setReceiveTimeout(const Poco::Timespan&) override {}
    void setSendTimeout(const Poco::Timespan&) override {}
    void shutdown() override {}
    void close() override {}
};

struct MemorySocket : StreamSocket {
    explicit MemorySocket(SocketImpl* impl) : StreamSocket(impl) {}
};

// One connection: kept for as many messages as the benchmark reads.
struct Connection {
    MemorySocketImpl* impl = new MemorySocketImpl;   // owned by the socket
    HTTPServerSession http{MemorySocket(impl), new HTTPServerParams};
};

struct Node {
    MessageHeader headers;
    std::string body;
    std::vector<std::unique_ptr<Node>> parts;
};

bool is_multipart(const std::string& type) { return type.compare(0, 10, "multipart/") == 0; }

// Content-Type main value and boundary attribute.
std::string boundary_of(const std::string& type) {
    NameValueCollection attributes;
    std::string value;
    MessageHeader::splitParameters(type, value, attributes);
    return attributes.get("boundary");
}

void read_parts(std::istream& in, const std::string& type,
                std::vector<std::unique_ptr<Node>>& parts) {
    MultipartReader reader(in, boundary_of(type));
    while (reader.hasNextPart()) {
        auto node = std::make_unique<Node>();
        reader.nextPart(node->headers);
        std::istream& part = reader.stream();
        const std::string& part_type = node->headers.get("Content-Type", "");
        if (is_multipart(part_type)) {
            read_parts(part, part_type, node->parts);
            Poco::NullOutputStream null;
            Poco::StreamCopier::copyStream(part, null);    // rest of the part, up to the boundary
        } else {
            Poco::StreamCopier::copyToString(part, node->body);
        }
        parts.push_back(std::move(node));
    }
}

struct Message {
    HTTPRequest request;
    std::string body;
    std::vector<std::unique_ptr<Node>> parts;
};

template <class Done> void parse_server(const Workload& w, Connection& c, Done done) {
    c.impl->in = w.wire;
    for (std::size_t i = 0; i < w.messages; ++i) {
        Message m;
        {
            HTTPHeaderInputStream in(c.http);
            m.request.read(in);
        }
        auto body = [&](std::istream& in) {
            const std::string& type = m.request.getContentType();
            if (is_multipart(type)) {
                read_parts(in, type, m.parts);
                Poco::NullOutputStream null;
                Poco::StreamCopier::copyStream(in, null);
            } else {
                Poco::StreamCopier::copyToString(in, m.body);
            }
        };
        if (m.request.getChunkedTransferEncoding()) {
            HTTPChunkedInputStream in(c.http);
            body(in);
        } else {
            HTTPFixedLengthInputStream in(c.http, m.request.getContentLength64());
            body(in);
        }
        done(m);
    }
}

template <class Done> void parse_istream(const Workload& w, Done done) {
    Poco::MemoryInputStream in(w.wire.data(), std::streamsize(w.wire.size()));
    for (std::size_t i = 0; i < w.messages; ++i) {
        Message m;
        m.request.read(in);
        const std::string& type = m.request.getContentType();
        if (is_multipart(type)) {
            read_parts(in, type, m.parts);
        } else {
            m.body.resize(std::size_t(m.request.getContentLength64()));
            in.read(&m.body[0], std::streamsize(m.body.size()));
        }
        done(m);
    }
}

void count(Seen& s, const Node& n) {
    ++s.parts;
    s.part_headers += n.headers.size();
    s.body(n.body);
    for (auto& p : n.parts) count(s, *p);
}

void count(Seen& s, const Message& m) {
    ++s.messages;
    s.headers += m.request.size();
    s.body(m.body);
    for (auto& p : m.parts) count(s, *p);
}

void common_headers(HTTPResponse& res) {
    res.setVersion(HTTPMessage::HTTP_1_1);
    res.set("Server", "example-server/1.0");
    res.setContentType("text/xml; charset=utf-8");
    res.setKeepAlive(true);                       // writes the Connection header
}

void write_small(Connection& c, std::string& sink) {
    sink.clear();
    HTTPResponse res(HTTPResponse::HTTP_OK);
    common_headers(res);
    const std::string& body = write_small_body();
    res.setContentLength64(Poco::Int64(body.size()));
    {
        HTTPHeaderOutputStream head(c.http);
        res.write(head);
    }
    HTTPFixedLengthOutputStream out(c.http, Poco::Int64(body.size()));
    out.write(body.data(), std::streamsize(body.size()));
    out.flush();
    keep(sink.data());
}

void write_small_ostream(std::ostream& out) {
    HTTPResponse res(HTTPResponse::HTTP_OK);
    common_headers(res);
    const std::string& body = write_small_body();
    res.setContentLength64(Poco::Int64(body.size()));
    res.write(out);
    out.write(body.data(), std::streamsize(body.size()));
}

void write_chunked(Connection& c, std::string& sink) {
    sink.clear();
    HTTPResponse res(HTTPResponse::HTTP_OK);
    common_headers(res);
    res.setChunkedTransferEncoding(true);
    {
        HTTPHeaderOutputStream head(c.http);
        res.write(head);
    }
    {
        HTTPChunkedOutputStream out(c.http);
        const std::string& body = write_big_body();
        for (std::size_t at = 0; at < body.size(); at += write_chunk)
            out.write(body.data() + at, std::streamsize(std::min(write_chunk, body.size() - at)));
    }
    keep(sink.data());
}

// An ostream buffer that appends to a string.
struct StringSink : std::streambuf {
    std::string& out;
    explicit StringSink(std::string& o) : out(o) {}
    std::streamsize xsputn(const char* p, std::streamsize n) override {
        out.append(p, std::size_t(n));
        return n;
    }
    int overflow(int c) override { out.push_back(char(c)); return c; }
};

}  // namespace

void register_poco() {
    for (const Workload& w : corpus()) {
        auto c = std::make_shared<Connection>();
        add_reader("poco_server", w, Depth::Tree,
            [&w, c] { parse_server(w, *c, [](const Message& m) { keep(m); }); },
            [&w, c] {
                Seen s;
                parse_server(w, *c, [&s](const Message& m) { count(s, m); });
                return s;
            });
        if (w.chunked()) continue;
        add_reader("poco_istream", w, Depth::Tree,
            [&w] { parse_istream(w, [](const Message& m) { keep(m); }); },
            [&w] {
                Seen s;
                parse_istream(w, [&s](const Message& m) { count(s, m); });
                return s;
            });
    }
    static std::string sink;
    auto c = std::make_shared<Connection>();
    c->impl->out = &sink;
    add_writer("poco_server", "write-small", write_small_body(), false, sink,
               [c] { write_small(*c, sink); });
    add_writer("poco_server", "write-chunked", write_big_body(), true, sink,
               [c] { write_chunked(*c, sink); });
    add_writer("poco_ostream", "write-small", write_small_body(), false, sink, [] {
        sink.clear();
        StringSink buffer(sink);
        std::ostream out(&buffer);
        write_small_ostream(out);
        keep(sink.data());
    });
}

}  // namespace bench
