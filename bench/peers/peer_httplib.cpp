// cpp-httplib has no separate parser; the protected Server::process_request reads one request
// from its Stream interface and answers it. With no route installed it reads the whole request
// and writes a short 404, so each figure holds that answer too, but no regular-expression
// routing. Its multipart reader is for form data only, so multipart stays unsplit.
#include "cases.hpp"

#include <httplib.h>

#include <cstring>
#include <memory>

namespace bench {
namespace {

class MemoryStream : public httplib::Stream {
public:
    std::string_view in;
    std::size_t written = 0;

    bool is_readable() const override { return true; }
    bool is_writable() const override { return true; }
    ssize_t read(char* to, size_t size) override {
        size_t n = std::min(size, in.size());
        std::memcpy(to, in.data(), n);
        in.remove_prefix(n);
        return ssize_t(n);
    }
    ssize_t write(const char* from, size_t size) override {
        keep(from);
        written += size;
        return ssize_t(size);
    }
    void get_remote_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1"; port = 1; }
    void get_local_ip_and_port(std::string& ip, int& port) const override { ip = "127.0.0.1"; port = 2; }
    socket_t socket() const override { return INVALID_SOCKET; }
};

class Reader : public httplib::Server {
public:
    void parse(const Workload& w) {
        MemoryStream stream;
        stream.in = w.wire;
        for (std::size_t i = 0; i < w.messages; ++i) {
            bool closed = false;
            if (!process_request(stream, false, closed, nullptr)) fail("httplib: " + w.name);
        }
        keep(stream.written);
    }
};

}  // namespace

void register_httplib() {
    for (const Workload& w : corpus()) {
        auto reader = std::make_shared<Reader>();
        auto checker = std::make_shared<Reader>();
        auto seen = std::make_shared<Seen>();
        checker->set_logger([seen](const httplib::Request& r, const httplib::Response&) {
            ++seen->messages;
            for (auto& h : r.headers)              // four are added by the library
                if (h.first.compare(0, 7, "REMOTE_") && h.first.compare(0, 6, "LOCAL_"))
                    ++seen->headers;
            seen->body(r.body);
        });
        add_reader(w.multipart() ? "httplib_unsplit" : "httplib", w, Depth::Entity,
            [&w, reader] { reader->parse(w); },
            [&w, checker, seen] { *seen = Seen(); checker->parse(w); return *seen; });
    }
}

}  // namespace bench
