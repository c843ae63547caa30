// Appending to a byte buffer and chunked coding, each beside the plain memory operation that it
// can't beat: appends to std::string, one memcpy of the same bytes. Floors: 4096-byte appends at
// half the speed of std::string, decoding and encoding at half that of the memcpy, in one run with
// the GLIBC_TUNABLES setting that bench/README.md explains.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"
#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULMemoryInputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

namespace {

constexpr int kMiB = 1024 * 1024;
constexpr int kChunk = 16 * 1024;
constexpr int kReadAhead = 4096;

void countBytes(benchmark::State& state, int bytes) {
    state.SetBytesProcessed(state.iterations() * bytes);
}

// Ranges: bytes in all, bytes a piece.
void appendToBuffer(benchmark::State& state) {
    int const total = static_cast<int>(state.range(0)), piece = static_cast<int>(state.range(1));
    std::string const bytes(static_cast<std::size_t>(piece), 'x');
    for (auto _ : state) {
        QORByteBuffer buffer(16, 16);
        for (int done = 0; done < total; done += piece)
            buffer.appendChars(bytes.data(), static_cast<unsigned int>(piece));
        benchmark::DoNotOptimize(buffer.str());
    }
    countBytes(state, total);
}

void appendToString(benchmark::State& state) {
    int const total = static_cast<int>(state.range(0)), piece = static_cast<int>(state.range(1));
    std::string const bytes(static_cast<std::size_t>(piece), 'x');
    for (auto _ : state) {
        std::string text;
        for (int done = 0; done < total; done += piece) text.append(bytes);
        benchmark::DoNotOptimize(text.data());
    }
    countBytes(state, total);
}

std::string chunked(std::string const& body) {
    ZULMemoryOutputStream out(1000, 1000);
    ZULChunkedOutputStream encoder(out, kChunk);
    encoder.write(body.data(), static_cast<int>(body.size()));
    encoder.close();
    return {out.bytes(), static_cast<std::size_t>(out.length())};
}

// Range: bytes of body.
std::string bodyOf(benchmark::State const& state) {
    return std::string(static_cast<std::size_t>(state.range(0)), 'x');
}

void copyOnce(benchmark::State& state) {
    std::string const body = bodyOf(state);
    std::vector<char> target(body.size());
    for (auto _ : state) {
        std::memcpy(target.data(), body.data(), body.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    countBytes(state, static_cast<int>(body.size()));
}

// Range 1: bytes asked for at a time.
void decode(benchmark::State& state) {
    std::string const coded = chunked(bodyOf(state));
    QORByteBuffer target(static_cast<unsigned int>(state.range(0)), 16);
    auto const decodeOnce = [&] {
        ZULMemoryInputStream wire(coded.data(), static_cast<int>(coded.size()));
        ZULBufferedInputStream buffered(wire, kReadAhead);
        ZULChunkedInputStream decoder(buffered);
        target.reset();
        while (decoder.read(target, static_cast<int>(state.range(1))) > 0) continue;
        benchmark::DoNotOptimize(target.str());
        benchmark::ClobberMemory();
    };
    decodeOnce();  // the system gives the target's pages at their first use, as copyOnce's
    for (auto _ : state) decodeOnce();
    if (target.pcount() != state.range(0)) state.SkipWithError("not the body that was encoded");
    countBytes(state, static_cast<int>(state.range(0)));
}

// Range 1: bytes written at a time.
void encode(benchmark::State& state) {
    std::string const body = bodyOf(state);
    int const total = static_cast<int>(state.range(0)), piece = static_cast<int>(state.range(1));
    ZULMemoryOutputStream out(total + total / 100 + 100, 1000);
    auto const encodeOnce = [&] {
        ZULChunkedOutputStream encoder(out, kChunk);
        out.reset();
        for (int done = 0; done < total; done += piece)
            encoder.write(body.data() + done, std::min(piece, total - done));
        encoder.close();
        benchmark::DoNotOptimize(out.bytes());
        benchmark::ClobberMemory();
    };
    encodeOnce();
    for (auto _ : state) encodeOnce();
    countBytes(state, total);
}

void appendSizes(benchmark::internal::Benchmark* b) {
    for (int const total : {kMiB, 8 * kMiB, 64 * kMiB})
        for (int const piece : {1, 100, 4096}) b->Args({total, piece});
}
BENCHMARK(appendToBuffer)->Apply(appendSizes);
BENCHMARK(appendToString)->Apply(appendSizes);

void bodySizes(benchmark::internal::Benchmark* b) {
    for (int const total : {kMiB, 64 * kMiB})
        for (int const piece : {4096, 64 * 1024, kMiB}) b->Args({total, piece});
}
BENCHMARK(copyOnce)->Arg(kMiB)->Arg(64 * kMiB);
BENCHMARK(decode)->Apply(bodySizes);
BENCHMARK(encode)->Apply(bodySizes);

}  // namespace
