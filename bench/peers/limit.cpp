// The physical limit: only the copying of body bytes that every in-memory reader must do.
#include "cases.hpp"

#include <algorithm>
#include <cstring>

namespace bench {

void register_limit() {
    for (const Workload& w : corpus()) {
        // The body bytes lie at the end of the file; for chunked and multipart wire bytes the
        // framing between them is left out, for `pipelined` each message's body is copied.
        std::size_t per = w.leaf_bytes / w.messages;
        std::size_t step = w.wire.size() / w.messages;
        auto each = [&w, per, step](auto copy) {
            for (std::size_t m = 0; m < w.messages; ++m)
                copy(std::string_view(w.wire).substr((m + 1) * step - per, per));
        };
        add_limit("limit_copy_reserved/" + w.name, w.messages, w.wire.size(), [each] {
            each([](std::string_view body) {
                std::string s(body);
                keep(s.data());
            });
        });
        add_limit("limit_copy_growing/" + w.name, w.messages, w.wire.size(), [each] {
            each([](std::string_view body) {      // as from a 4 KiB stream buffer
                std::string s;
                for (std::size_t at = 0; at < body.size(); at += 4096)
                    s.append(body.substr(at, 4096));
                keep(s.data());
            });
        });
    }
    auto copy_out = [](const std::string& body) {
        static std::string sink;
        sink.clear();
        for (std::size_t at = 0; at < body.size(); at += write_chunk)
            sink.append(body, at, write_chunk);
        keep(sink.data());
    };
    add_limit("limit_copy/write-small", 1, write_small_body().size(),
              [copy_out] { copy_out(write_small_body()); });
    add_limit("limit_copy/write-chunked", 1, write_big_body().size(),
              [copy_out] { copy_out(write_big_body()); });
}

}  // namespace bench
