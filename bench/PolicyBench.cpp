// Reading under a policy: 16 parts of 64 KiB without lengths, of random bytes and of bytes that
// come close to delimiters everywhere, beside one memcpy of the same bytes; and twice as many of
// the latter, which must take twice as long.
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULMemoryInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPMessageReader.h"

namespace {

constexpr std::size_t kPartSize = 64 * 1024;
constexpr char kBoundary[] = "uuid:0d2b1f7e-93a4-4c5e-9d3b-0c6f1e2a7b55";

std::string randomBytes() {
    std::mt19937 random(1);
    std::string bytes(kPartSize, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

// CRLF and dashes alone: a delimiter could begin every fourth byte.
std::string dashes() {
    std::string bytes;
    while (bytes.size() < kPartSize) bytes += "\r\n--";
    return bytes;
}

std::string message(std::string const& part, std::int64_t parts) {
    std::string const separator = std::string("\r\n--") + kBoundary;
    std::string body;
    for (std::int64_t i = 0; i < parts; ++i)
        body += separator + "\r\nContent-Type: application/octet-stream\r\n\r\n" + part;
    body += separator + "--\r\n";
    return std::string("POST / HTTP/1.1\r\nContent-Type: multipart/related; boundary=\"") +
           kBoundary + "\"\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

void readParts(benchmark::State& state, std::string const& part) {
    std::string const bytes = message(part, state.range(0));
    for (auto _ : state) {
        ZULMemoryInputStream wire(bytes.data(), static_cast<int>(bytes.size()));
        ZULBufferedInputStream buffered(wire, 4096);
        HTTPMessageReader reader(buffered);
        reader.setReadPolicy(HTTPReadPolicy::hardened());
        HTTPMessage read;
        std::string uri;
        reader.getRequest(&read, &uri);
        if (read.num_parts() != state.range(0)) state.SkipWithError("parts are missing");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}

void randomParts(benchmark::State& state) { readParts(state, randomBytes()); }
void partsOfDashes(benchmark::State& state) { readParts(state, dashes()); }

// As many blocks, into memory that is there.
void copyParts(benchmark::State& state) {
    std::string const part = randomBytes();
    std::vector<std::string> source(static_cast<std::size_t>(state.range(0)), part);
    std::vector<std::string> copies(source.size());
    for (auto _ : state) {
        for (std::size_t i = 0; i < source.size(); ++i) copies[i].assign(source[i]);
        benchmark::DoNotOptimize(copies.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) *
                            static_cast<std::int64_t>(kPartSize));
}

BENCHMARK(copyParts)->Arg(16);
BENCHMARK(randomParts)->Arg(16);
BENCHMARK(partsOfDashes)->Arg(16)->Arg(32);

}  // namespace
