// This library. Reading: HTTPMessageReader over ZULBufferedInputStream over ZULMemoryInputStream
// into an HTTPMessage.
//   postwire        the reader is kept, as its contract wants: one a connection, because it holds
//                   the bytes read beyond a message. Messages are new
//   postwire_hardened  the same under HTTPReadPolicy::hardened()
//   postwire_fresh  streams and reader are new for each run of the workload too: what a
//                   connection with a single run costs
//   postwire_asked  as postwire, but each message and part is asked for its Content-Type and an
//                   attribute of it, so that nothing of the headers can be left for later;
//                   postwire_hardened_asked does both
// Writing: OnePieceHttpMsg and MultipartHttpMsg into a string; `postwire` builds the node anew for
// each message, `postwire_kept` keeps it.
#include "cases.hpp"

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULMemoryInputStream.h"
#include "foundation/ZULOutputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"
#include "sender/HTTPMessageSender.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace bench {
namespace {

constexpr int kReadAhead = 4096;

// The stream at the bottom stands at one address, with other bytes for each run.
struct Connection {
    explicit Connection(bool hardened = false) {
        if (hardened) reader.setReadPolicy(HTTPReadPolicy::hardened());
    }

    std::optional<ZULMemoryInputStream> wire{std::in_place, "", 0};
    ZULBufferedInputStream buffered{*wire, kReadAhead};
    HTTPMessageReader reader{buffered};
};

template <class Done> void read_all(const Workload& w, HTTPMessageReader& reader, Done done) {
    for (std::size_t i = 0; i < w.messages; ++i) {
        HTTPMessage m;
        std::string uri;
        reader.getRequest(&m, &uri);
        done(m);
    }
}

template <class Done> void read_kept(const Workload& w, Connection& c, Done done) {
    c.wire.emplace(w.wire.data(), int(w.wire.size()));
    read_all(w, c.reader, done);
}

template <class Done> void read_fresh(const Workload& w, Done done) {
    ZULMemoryInputStream wire(w.wire.data(), int(w.wire.size()));
    ZULBufferedInputStream buffered(wire, kReadAhead);
    HTTPMessageReader reader(buffered);
    read_all(w, reader, done);
}

void ask(HTTPMessage& m) {
    HTTPHeader* type = m.getHeader("content-type");
    keep(type ? type->getAttribute("charset") : nullptr);
    for (int i = 0; i < m.num_parts(); ++i) ask(*m.getPart(i));
}

// Header lines of a message as it was read: dump writes them, after it has changed the two that
// frame the body.
std::size_t header_lines(HTTPMessage& m) {
    auto framing = [&m] {
        return std::size_t(m.getHeader("content-length") != nullptr) +
               std::size_t(m.getHeader("transfer-encoding") != nullptr);
    };
    std::size_t before = framing(), lines = 0, at = 0, end;
    QORByteBuffer out(1024, 1024);
    m.dump(out, 0);
    std::string_view text(out.str(), out.pcount());
    for (; (end = text.find("\r\n", at)) != at; at = end + 2) ++lines;
    return lines - framing() + before;
}

void count(Seen& s, HTTPMessage& m) {
    if (m.contentSize() > 0) s.body({m.contentBytes(), std::size_t(m.contentSize())});
    for (int i = 0; i < m.num_parts(); ++i) {
        HTTPMessage& part = *m.getPart(i);
        count(s, part);
        ++s.parts;
        s.part_headers += header_lines(part);
    }
}

void count_message(Seen& s, HTTPMessage& m) {
    count(s, m);
    ++s.messages;
    s.headers += header_lines(m);
}

// ---- writing ----

struct StringStream : ZULOutputStream {
    std::string& out;
    explicit StringStream(std::string& o) : out(o) {}
    void write(const char* data, int length) override { out.append(data, std::size_t(length)); }
};

void common_headers(HttpMsgNode& node) {
    node.startResponse(200, "OK");
    node.setHeader("Server", "example-server/1.0");
    node.setHeader("Content-Type", "text/xml; charset=utf-8");
    node.setHeader("Connection", "keep-alive");
}

// Looks at the bytes where they are, as a socket does: what is timed ends at the upstream.
struct UpstreamStream : ZULOutputStream {
    void write(const char* data, int) override { keep(data); }
};

void write_small(OnePieceHttpMsg& node, std::string& sink) {
    sink.clear();
    common_headers(node);
    node.write(write_small_body().data(), int(write_small_body().size()));
    node.finish();
    keep(sink.data());
}

void write_chunked(OnePieceHttpMsg& node, std::string& sink) {
    sink.clear();
    common_headers(node);
    const std::string& body = write_big_body();
    for (std::size_t at = 0; at < body.size(); at += write_chunk)
        node.write(body.data() + at, int(std::min(write_chunk, body.size() - at)));
    node.finish();
    keep(sink.data());
}

// 16 parts of 64 KiB, node and parts buffered.
constexpr std::size_t kParts = 16, kPartSize = 64 << 10;
constexpr char kBoundary[] = "=_outer_5f2b6c1e8d1a4b7e";

std::string_view part_body(std::size_t i) {
    return std::string_view(write_big_body()).substr(i * kPartSize, kPartSize);
}

void write_multipart(MultipartHttpMsg& node) {
    node.startResponse(200, "OK");
    for (std::size_t i = 0; i < kParts; ++i) {
        OnePieceHttpMsg* part = node.addOnePiece(0);
        part->write(part_body(i).data(), int(kPartSize));
        node.endPart(part);
    }
    node.finish();
}

void check_multipart(const std::string& bytes) {
    ZULMemoryInputStream wire(bytes.data(), int(bytes.size()));
    ZULBufferedInputStream buffered(wire, kReadAhead);
    HTTPMessageReader reader(buffered);
    HTTPMessage m;
    HTTPMessage::StatusCode status{};
    std::string text;
    reader.getResponse(&m, &status, &text);
    Seen seen, want;
    count(seen, m);
    for (std::size_t i = 0; i < kParts; ++i) want.body(part_body(i));
    if (seen.parts != kParts || seen.crc != want.crc) fail("postwire/write-multipart: wrong parts");
}

struct Writer {
    std::string sink;
    StringStream out{sink};
    OnePieceHttpMsg plain{out, 0};
    OnePieceHttpMsg chunked{out, int(write_chunk)};
    UpstreamStream upstream;
    MultipartHttpMsg multipart{upstream, 0, kBoundary};
};

void register_writers() {
    static Writer w;
    auto small = [](bool kept) {
        return [kept] {
            if (kept) return write_small(w.plain, w.sink);
            OnePieceHttpMsg node(w.out, 0);
            write_small(node, w.sink);
        };
    };
    auto chunked = [](bool kept) {
        return [kept] {
            if (kept) return write_chunked(w.chunked, w.sink);
            OnePieceHttpMsg node(w.out, int(write_chunk));
            write_chunked(node, w.sink);
        };
    };
    for (bool kept : {false, true}) {
        std::string peer = kept ? "postwire_kept" : "postwire";
        add_writer(peer, "write-small", write_small_body(), false, w.sink, small(kept));
        add_writer(peer, "write-chunked", write_big_body(), true, w.sink, chunked(kept));
    }
    for (int round = 0; round < 2; ++round) {
        w.sink.clear();
        MultipartHttpMsg node(w.out, 0, kBoundary);
        write_multipart(node);
        check_multipart(w.sink);
    }
    add_limit("postwire/write-multipart", 1, kParts * kPartSize, [] {
        MultipartHttpMsg node(w.upstream, 0, kBoundary);
        write_multipart(node);
    });
    add_limit("postwire_kept/write-multipart", 1, kParts * kPartSize,
        [] { write_multipart(w.multipart); });
    add_limit("limit_memcpy/write-multipart", 1, kParts * kPartSize, [] {
        w.sink.assign(write_big_body(), 0, kParts * kPartSize);
        keep(w.sink.data());
    });
}

}  // namespace

void register_postwire() {
    for (const Workload& w : corpus()) {
        auto c = std::make_shared<Connection>();
        add_reader("postwire", w, Depth::Tree,
            [&w, c] { read_kept(w, *c, [](const HTTPMessage& m) { keep(m); }); },
            [&w, c] {
                Seen s;
                read_kept(w, *c, [&s](HTTPMessage& m) { count_message(s, m); });
                return s;
            });
        // What it refuses by its limits is not timed.
        std::size_t const limit = static_cast<std::size_t>(HTTPReadPolicy::hardened().maxHeaders);
        if (w.headers <= w.messages * limit) {
            auto h = std::make_shared<Connection>(true);
            add_reader("postwire_hardened", w, Depth::Tree,
                [&w, h] { read_kept(w, *h, [](const HTTPMessage& m) { keep(m); }); },
                [&w, h] {
                    Seen s;
                    read_kept(w, *h, [&s](HTTPMessage& m) { count_message(s, m); });
                    return s;
                });
            add_reader("postwire_hardened_asked", w, Depth::Tree,
                [&w, h] { read_kept(w, *h, ask); },
                [&w, h] {
                    Seen s;
                    read_kept(w, *h, [&s](HTTPMessage& m) { ask(m); count_message(s, m); });
                    return s;
                });
        }
        add_reader("postwire_asked", w, Depth::Tree,
            [&w, c] { read_kept(w, *c, ask); },
            [&w, c] {
                Seen s;
                read_kept(w, *c, [&s](HTTPMessage& m) { ask(m); count_message(s, m); });
                return s;
            });
        add_reader("postwire_fresh", w, Depth::Tree,
            [&w] { read_fresh(w, [](const HTTPMessage& m) { keep(m); }); },
            [&w] {
                Seen s;
                read_fresh(w, [&s](HTTPMessage& m) { count_message(s, m); });
                return s;
            });
    }
    register_writers();
}

}  // namespace bench
