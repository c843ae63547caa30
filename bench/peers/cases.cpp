#include "cases.hpp"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

namespace bench {

namespace {
std::vector<Workload> g_corpus;
std::vector<Case> g_cases;

std::array<std::uint32_t, 256> make_table() {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        t[i] = c;
    }
    return t;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) fail("cannot read " + path + " (run corpus/make_corpus.py first)");
    return {std::istreambuf_iterator<char>(in), {}};
}

template <class T> void expect(const std::string& peer, const Workload& w, const char* what,
                               T got, T want) {
    if (got == want) return;
    std::ostringstream s;
    s << peer << "/" << w.name << ": " << what << " is " << got << ", must be " << want;
    fail(s.str());
}

// Splits a response and undoes chunked coding, independently of every peer.
std::string response_body(const std::string& bytes, bool chunked, std::string& head) {
    std::size_t end = bytes.find("\r\n\r\n");
    if (end == std::string::npos) fail("written response has no header end");
    head = bytes.substr(0, end + 4);
    std::size_t at = end + 4;
    if (!chunked) return bytes.substr(at);
    std::string body;
    for (;;) {
        std::size_t eol = bytes.find("\r\n", at);
        if (eol == std::string::npos) fail("written response: bad chunk line");
        std::size_t n = std::strtoul(bytes.c_str() + at, nullptr, 16);
        at = eol + 2;
        if (n == 0) break;
        if (n > write_chunk) fail("written response: chunk too big");
        body.append(bytes, at, n);
        at += n + 2;
    }
    if (at + 2 != bytes.size()) fail("written response: bytes after the last chunk");
    return body;
}
}  // namespace

void fail(const std::string& what) {
    std::fprintf(stderr, "error: %s\n", what.c_str());
    std::exit(1);
}

std::uint32_t crc32(std::uint32_t crc, std::string_view bytes) {
    static const auto table = make_table();
    crc = ~crc;
    for (unsigned char b : bytes) crc = table[(crc ^ b) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

void Seen::body(std::string_view bytes) {
    body_bytes += bytes.size();
    crc = crc32(crc, bytes);
}

void load_corpus(const std::string& directory) {
    std::istringstream manifest(read_file(directory + "/manifest.tsv"));
    std::string line;
    std::getline(manifest, line);
    while (std::getline(manifest, line)) {
        Workload w;
        std::istringstream fields(line);
        if (!(fields >> w.name >> w.messages >> w.headers >> w.entity_bytes >> w.entity_crc
                     >> w.parts >> w.part_headers >> w.leaf_bytes >> w.leaf_crc))
            fail("bad manifest line: " + line);
        w.wire = read_file(directory + "/" + w.name + ".http");
        g_corpus.push_back(std::move(w));
    }
    if (g_corpus.empty()) fail("empty manifest in " + directory);
}

const std::vector<Workload>& corpus() { return g_corpus; }
const std::vector<Case>& cases() { return g_cases; }

void add_reader(const std::string& peer, const Workload& w, Depth depth,
                std::function<void()> run, std::function<Seen()> check) {
    for (int round = 0; round < 2; ++round) {      // twice: reused connections must stay clean
        Seen s = check();
        expect(peer, w, "message count", s.messages, w.messages);
        expect(peer, w, "header count", s.headers, w.headers);
        if (depth == Depth::Headers) continue;
        bool tree = depth == Depth::Tree;
        expect(peer, w, "part count", s.parts, tree ? w.parts : 0);
        expect(peer, w, "part header count", s.part_headers, tree ? w.part_headers : 0);
        expect(peer, w, "body size", s.body_bytes, tree ? w.leaf_bytes : w.entity_bytes);
        expect(peer, w, "body CRC", s.crc, tree ? w.leaf_crc : w.entity_crc);
    }
    std::size_t bytes = w.wire.size() - (depth == Depth::Headers ? w.entity_bytes : 0);
    g_cases.push_back({peer + "/" + w.name, w.messages, bytes, std::move(run)});
}

void add_writer(const std::string& peer, const std::string& workload, std::string_view body,
                bool chunked, std::string& sink, std::function<void()> run) {
    std::size_t size = 0;
    for (int round = 0; round < 2; ++round) {
        sink.clear();
        run();
        std::string head;
        if (response_body(sink, chunked, head) != body) fail(peer + "/" + workload + ": wrong body");
        if (head.compare(0, 15, "HTTP/1.1 200 OK") != 0) fail(peer + "/" + workload + ": bad status line");
        std::size_t lines = 0;
        for (std::size_t p = 0; (p = head.find("\r\n", p)) != std::string::npos; p += 2) ++lines;
        if (lines != 2 + 4) fail(peer + "/" + workload + ": must write 4 headers");
        size = sink.size();
    }
    g_cases.push_back({peer + "/" + workload, 1, size, std::move(run)});
}

void add_limit(const std::string& name, std::size_t messages, std::size_t bytes,
               std::function<void()> run) {
    g_cases.push_back({name, messages, bytes, std::move(run)});
}

const std::string& write_small_body() {
    static const std::string body(1024, 'x');
    return body;
}

const std::string& write_big_body() {
    static const std::string body = [] {
        std::string s(8 << 20, '\0');
        std::uint32_t x = 1;
        for (char& c : s) c = static_cast<char>((x = x * 1664525u + 1013904223u) >> 24);
        return s;
    }();
    return body;
}

void register_all() {
    register_limit();
#ifdef HAVE_POSTWIRE
    register_postwire();
#endif
#ifdef HAVE_BEAST
    register_beast();
#endif
#ifdef HAVE_POCO
    register_poco();
#endif
#ifdef HAVE_HTTP_PARSER
    register_http_parser();
#endif
#ifdef HAVE_GMIME
    register_gmime();
#endif
#ifdef HAVE_HTTPLIB
    register_httplib();
#endif
}

}  // namespace bench
