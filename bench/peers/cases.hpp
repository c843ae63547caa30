// Shared by every peer: the corpus, what a correct parse finds in it, and the list of cases.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

// What a reader found. The check outside the timed loop compares it with the manifest.
struct Seen {
    std::size_t messages = 0;
    std::size_t headers = 0;       // top-level header fields
    std::size_t parts = 0;         // multipart parts at every level
    std::size_t part_headers = 0;
    std::size_t body_bytes = 0;
    std::uint32_t crc = 0;         // of all body bytes in order
    void body(std::string_view bytes);
};

struct Workload {
    std::string name;
    std::string wire;              // exact bytes of the file
    std::size_t messages = 0, headers = 0;
    std::size_t entity_bytes = 0;
    std::uint32_t entity_crc = 0;
    std::size_t parts = 0, part_headers = 0, leaf_bytes = 0;
    std::uint32_t leaf_crc = 0;
    bool multipart() const { return parts != 0; }
    bool chunked() const { return name.compare(0, 7, "chunked") == 0; }
};

// How much of a message a peer delivers, so that the check asks for just that.
enum class Depth {
    Tree,      // headers, parts and part bodies
    Entity,    // headers and the body with its multipart framing unsplit
    Headers,   // header block only
};

struct Case {
    std::string name;              // peer/workload
    std::size_t messages;          // per call of run
    std::size_t bytes;             // wire bytes per call of run
    std::function<void()> run;
};

const std::vector<Workload>& corpus();
void load_corpus(const std::string& directory);   // exits with a message when it cannot

// Adds a case after `check` has shown that the same code parses the workload correctly;
// exits with a message otherwise.
void add_reader(const std::string& peer, const Workload& w, Depth depth,
                std::function<void()> run, std::function<Seen()> check);
// Adds a writer case after checking the response bytes it leaves in `sink`.
void add_writer(const std::string& peer, const std::string& workload, std::string_view body,
                bool chunked, std::string& sink, std::function<void()> run);
void add_limit(const std::string& name, std::size_t messages, std::size_t bytes,
               std::function<void()> run);
const std::vector<Case>& cases();

// Bodies of the two write workloads.
const std::string& write_small_body();   // 1 KiB, written with Content-Length
const std::string& write_big_body();     // 8 MiB, written in 16 KiB chunks
constexpr std::size_t write_chunk = 16 << 10;

std::uint32_t crc32(std::uint32_t crc, std::string_view bytes);
[[noreturn]] void fail(const std::string& what);

// Running totals of heap calls in this process (single-threaded).
extern std::uint64_t new_calls;      // operator new
extern std::uint64_t malloc_calls;   // malloc, calloc, realloc; includes the ones under operator new

void register_limit();
void register_postwire();
void register_beast();
void register_poco();
void register_http_parser();
void register_gmime();
void register_httplib();
void register_all();

// Keeps the optimiser from dropping a result.
template <class T> inline void keep(T const& value) { asm volatile("" : : "r,m"(value) : "memory"); }

}  // namespace bench
