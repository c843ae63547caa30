// Boost.Beast: request_parser into fields and a string body; serializer for responses.
// Beast has no multipart reader, so multipart bodies stay unsplit (Depth::Entity).
#include "cases.hpp"

#include <boost/asio/buffer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cstring>
#include <memory>

namespace bench {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using Parser = http::request_parser<http::string_body>;

void prepare(Parser& p) {
    p.eager(true);
    p.body_limit(boost::none);
    p.header_limit(64 << 10);
}

// A blocking stream over bytes in memory: satisfies Beast's SyncReadStream.
struct MemoryStream {
    std::string_view left;
    template <class Buffers> std::size_t read_some(const Buffers& to) {
        beast::error_code ec;
        std::size_t n = read_some(to, ec);
        if (ec) throw beast::system_error(ec);
        return n;
    }
    template <class Buffers> std::size_t read_some(const Buffers& to, beast::error_code& ec) {
        std::size_t n = net::buffer_copy(to, net::buffer(left.data(), left.size()));
        left.remove_prefix(n);
        ec = {};
        if (n == 0 && net::buffer_size(to) != 0) ec = net::error::eof;
        return n;
    }
};

// Whole wire image in one buffer: the parser alone.
template <class Done> void parse_put(const Workload& w, Done done) {
    std::string_view in = w.wire;
    while (!in.empty()) {
        Parser p;
        prepare(p);
        beast::error_code ec;
        while (!p.is_done()) {
            std::size_t n = p.put(net::buffer(in.data(), in.size()), ec);
            if (ec) fail("beast: " + ec.message());
            in.remove_prefix(n);
        }
        done(p.get());
    }
}

// http::read from a stream through a flat_buffer that lives as long as the connection.
template <class Done> void parse_read(const Workload& w, beast::flat_buffer& buffer, Done done) {
    MemoryStream stream{w.wire};
    for (std::size_t i = 0; i < w.messages; ++i) {
        Parser p;
        prepare(p);
        beast::error_code ec;
        http::read(stream, buffer, p, ec);
        if (ec) fail("beast: " + ec.message());
        done(p.get());
    }
}

using Request = Parser::value_type;

void count(Seen& s, const Request& r) {
    ++s.messages;
    for (auto const& f : r) { keep(f); ++s.headers; }
    s.body(r.body());
}

// Appends what a serializer produces to the sink.
template <class Serializer> bool drain(Serializer& sr, std::string& sink, beast::error_code& ec) {
    while (!sr.is_done()) {
        sr.next(ec, [&](beast::error_code& e, auto const& buffers) {
            e = {};
            std::size_t n = 0;
            for (auto it = net::buffer_sequence_begin(buffers);
                 it != net::buffer_sequence_end(buffers); ++it) {
                net::const_buffer b = *it;
                sink.append(static_cast<const char*>(b.data()), b.size());
                n += b.size();
            }
            sr.consume(n);
        });
        if (ec == http::error::need_buffer) { ec = {}; return false; }
        if (ec) fail("beast: " + ec.message());
    }
    return true;
}

template <class Response> void common_headers(Response& res) {
    res.set(http::field::server, "example-server/1.0");
    res.set(http::field::content_type, "text/xml; charset=utf-8");
    res.set(http::field::connection, "keep-alive");
}

void write_small(std::string& sink) {
    sink.clear();
    http::response<http::string_body> res(http::status::ok, 11);
    common_headers(res);
    res.body() = write_small_body();
    res.prepare_payload();
    http::response_serializer<http::string_body> sr(res);
    beast::error_code ec;
    drain(sr, sink, ec);
    keep(sink.data());
}

// The body arrives in 16 KiB pieces, each written as one chunk.
void write_chunked(std::string& sink) {
    sink.clear();
    http::response<http::buffer_body> res(http::status::ok, 11);
    common_headers(res);
    res.chunked(true);
    res.body().data = nullptr;
    res.body().more = true;
    http::response_serializer<http::buffer_body> sr(res);
    beast::error_code ec;
    const std::string& body = write_big_body();
    for (std::size_t at = 0; at < body.size(); at += write_chunk) {
        res.body().data = const_cast<char*>(body.data() + at);
        res.body().size = std::min(write_chunk, body.size() - at);
        res.body().more = true;
        drain(sr, sink, ec);
    }
    res.body().data = nullptr;
    res.body().size = 0;
    res.body().more = false;
    drain(sr, sink, ec);
    keep(sink.data());
}

}  // namespace

void register_beast() {
    for (const Workload& w : corpus()) {
        std::string suffix = w.multipart() ? "_unsplit" : "";
        add_reader("beast_put" + suffix, w, Depth::Entity,
            [&w] { parse_put(w, [](const Request& r) { keep(r); }); },
            [&w] { Seen s; parse_put(w, [&s](const Request& r) { count(s, r); }); return s; });
        auto buffer = std::make_shared<beast::flat_buffer>();
        add_reader("beast_read" + suffix, w, Depth::Entity,
            [&w, buffer] { parse_read(w, *buffer, [](const Request& r) { keep(r); }); },
            [&w, buffer] {
                Seen s;
                parse_read(w, *buffer, [&s](const Request& r) { count(s, r); });
                return s;
            });
    }
    static std::string sink;
    add_writer("beast", "write-small", write_small_body(), false, sink, [] { write_small(sink); });
    add_writer("beast", "write-chunked", write_big_body(), true, sink, [] { write_chunked(sink); });
}

}  // namespace bench
