// GMime: the multipart workloads as MIME trees. GMime reads no start line, so parsing begins
// after it; part bodies are found by scanning for boundaries (Content-Length is ignored) and
// kept in memory. GMime is C over GLib: its allocations show in malloc_per_msg only.
#include "cases.hpp"

#include <gmime/gmime.h>

#include <memory>

namespace bench {
namespace {

struct Input {
    GByteArray* bytes;             // the wire bytes after the start line
    explicit Input(const Workload& w) {
        std::size_t at = w.wire.find("\r\n") + 2;
        bytes = g_byte_array_sized_new(guint(w.wire.size() - at));
        g_byte_array_append(bytes, reinterpret_cast<const guint8*>(w.wire.data() + at),
                            guint(w.wire.size() - at));
    }
    ~Input() { g_byte_array_free(bytes, TRUE); }
    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;
};

template <class Done> void parse(const Input& in, Done done) {
    GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(in.bytes);
    g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream), FALSE);
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    g_mime_parser_set_persist_stream(parser, FALSE);       // the tree owns its bodies
    GMimeObject* root = g_mime_parser_construct_part(parser, nullptr);
    if (!root) fail("gmime: no object");
    done(root);
    g_object_unref(root);
    g_object_unref(parser);
    g_object_unref(stream);
}

void count(Seen& s, GMimeObject* o, bool root) {
    std::size_t headers = std::size_t(g_mime_header_list_get_count(g_mime_object_get_header_list(o)));
    if (root) s.headers += headers;
    else { ++s.parts; s.part_headers += headers; }
    if (GMIME_IS_MULTIPART(o)) {
        GMimeMultipart* m = GMIME_MULTIPART(o);
        for (int i = 0; i < g_mime_multipart_get_count(m); ++i)
            count(s, g_mime_multipart_get_part(m, i), false);
    } else {
        GMimeStream* body = g_mime_data_wrapper_get_stream(g_mime_part_get_content(GMIME_PART(o)));
        GMimeStream* copy = g_mime_stream_mem_new();
        g_mime_stream_reset(body);
        g_mime_stream_write_to_stream(body, copy);
        GByteArray* a = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(copy));
        s.body({reinterpret_cast<const char*>(a->data), a->len});
        g_object_unref(copy);
    }
}

}  // namespace

void register_gmime() {
    g_mime_init();
    for (const Workload& w : corpus()) {
        if (!w.multipart()) continue;
        auto in = std::make_shared<Input>(w);
        add_reader("gmime", w, Depth::Tree,
            [in] { parse(*in, [](GMimeObject* o) { keep(o); }); },
            [in] {
                Seen s;
                parse(*in, [&s](GMimeObject* o) { ++s.messages; count(s, o, true); });
                return s;
            });
    }
}

}  // namespace bench
