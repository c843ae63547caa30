// http-parser 2.9: callbacks only (no tree, a lower bound for a parser written in C), and the
// same callbacks storing into a header multimap and a body string.
#include "cases.hpp"

#include <http_parser.h>
#include <strings.h>

#include <algorithm>
#include <map>

namespace bench {
namespace {

// --- callbacks only: count, store nothing ---

struct Counts {
    std::size_t messages = 0, headers = 0;
    Seen* seen = nullptr;          // set by the check only
    bool in_value = true;
};

Counts& counts(http_parser* p) { return *static_cast<Counts*>(p->data); }

int on_field(http_parser* p, const char*, size_t) {
    Counts& c = counts(p);
    if (c.in_value) ++c.headers;
    c.in_value = false;
    return 0;
}
int on_value(http_parser* p, const char*, size_t) { counts(p).in_value = true; return 0; }
int on_done(http_parser* p) { ++counts(p).messages; return 0; }
int on_body(http_parser* p, const char* at, size_t n) {
    if (Seen* s = counts(p).seen) s->body({at, n});
    return 0;
}

void parse_callbacks(const Workload& w, Counts& c) {
    static const http_parser_settings settings = [] {
        http_parser_settings s;
        http_parser_settings_init(&s);
        s.on_header_field = on_field;
        s.on_header_value = on_value;
        s.on_body = on_body;
        s.on_message_complete = on_done;
        return s;
    }();
    http_parser p;
    http_parser_init(&p, HTTP_REQUEST);
    p.data = &c;
    if (http_parser_execute(&p, &settings, w.wire.data(), w.wire.size()) != w.wire.size())
        fail(std::string("http-parser: ") + http_errno_description(HTTP_PARSER_ERRNO(&p)));
}

// --- stored: case-insensitive multimap plus body string, fed in 16 KiB reads ---

struct NoCase {
    bool operator()(const std::string& a, const std::string& b) const {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    }
};

struct Message {
    std::string uri;
    std::multimap<std::string, std::string, NoCase> headers;
    std::string body;
};

template <class Done> struct Store {
    Done done;
    Message m;
    std::string field, value;
    bool in_value = false;

    explicit Store(Done d) : done(d) {}
    static Store& of(http_parser* p) { return *static_cast<Store*>(p->data); }

    void flush() {
        if (in_value) m.headers.emplace(std::move(field), std::move(value));
        field.clear();
        value.clear();
        in_value = false;
    }
    static int begin(http_parser* p) { of(p).m = Message(); return 0; }
    static int url(http_parser* p, const char* at, size_t n) { of(p).m.uri.append(at, n); return 0; }
    static int on_field(http_parser* p, const char* at, size_t n) {
        Store& s = of(p);
        if (s.in_value) s.flush();
        s.field.append(at, n);
        return 0;
    }
    static int on_value(http_parser* p, const char* at, size_t n) {
        Store& s = of(p);
        s.value.append(at, n);
        s.in_value = true;
        return 0;
    }
    static int headers_done(http_parser* p) { of(p).flush(); return 0; }
    static int on_body(http_parser* p, const char* at, size_t n) {
        of(p).m.body.append(at, n);
        return 0;
    }
    static int complete(http_parser* p) { of(p).done(of(p).m); return 0; }
};

template <class Done> void parse_stored(const Workload& w, Done done) {
    using S = Store<Done>;
    http_parser_settings settings;
    http_parser_settings_init(&settings);
    settings.on_message_begin = S::begin;
    settings.on_url = S::url;
    settings.on_header_field = S::on_field;
    settings.on_header_value = S::on_value;
    settings.on_headers_complete = S::headers_done;
    settings.on_body = S::on_body;
    settings.on_message_complete = S::complete;
    S store(done);
    http_parser p;
    http_parser_init(&p, HTTP_REQUEST);
    p.data = &store;
    std::string_view in = w.wire;
    while (!in.empty()) {
        std::string_view piece = in.substr(0, 16 << 10);
        if (http_parser_execute(&p, &settings, piece.data(), piece.size()) != piece.size())
            fail(std::string("http-parser: ") + http_errno_description(HTTP_PARSER_ERRNO(&p)));
        in.remove_prefix(piece.size());
    }
}

}  // namespace

void register_http_parser() {
    for (const Workload& w : corpus()) {
        std::string suffix = w.multipart() ? "_unsplit" : "";
        add_reader("http_parser_callbacks" + suffix, w, Depth::Entity,
            [&w] { Counts c; parse_callbacks(w, c); keep(c.messages + c.headers); },
            [&w] {
                Seen s;
                Counts c;
                c.seen = &s;
                parse_callbacks(w, c);
                s.messages = c.messages;
                s.headers = c.headers;
                return s;
            });
        add_reader("http_parser_stored" + suffix, w, Depth::Entity,
            [&w] { parse_stored(w, [](const Message& m) { keep(m); }); },
            [&w] {
                Seen s;
                parse_stored(w, [&s](const Message& m) {
                    ++s.messages;
                    s.headers += m.headers.size();
                    s.body(m.body);
                });
                return s;
            });
    }
}

}  // namespace bench
