// The message model: header texts taken apart, with the allocations that costs; fields stored and
// looked up among 60; and a dump of 8 MiB beside one memcpy of the same bytes.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "foundation/QORByteBuffer.h"

#include "message/HTTPMessage.h"

namespace {

long allocations = 0;

}  // namespace

// Not inlined: next to the calls the compiler would take malloc and delete for a mismatched pair.
[[gnu::noinline]] void* operator new(std::size_t n) {
    ++allocations;
    if (void* const block = std::malloc(n)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

char const* const kTexts[] = {"text/xml; charset=utf-8", "keep-alive",
                              "multipart/related; type=\"text/xml\"; boundary=\"xyz\""};

void parse(benchmark::State& state) {
    char const* const text = kTexts[state.range(0)];
    long const before = allocations;
    for (auto _ : state) {
        HTTPHeader header;
        header.parse(text);
        benchmark::DoNotOptimize(header);
    }
    state.counters["allocations"] = benchmark::Counter(static_cast<double>(allocations - before),
                                                       benchmark::Counter::kAvgIterations);
    state.SetLabel(text);
}

std::vector<std::string> names() {
    std::vector<std::string> all;
    for (int i = 0; i < 60; ++i) all.push_back("X-Field-" + std::to_string(i * 37 % 60));
    return all;
}

void setSixtyHeaders(benchmark::State& state) {
    std::vector<std::string> const fields = names();
    HTTPHeader header("value");
    for (auto _ : state) {
        HTTPHeaders headers;
        for (std::string const& field : fields) headers.setHeader(field.c_str(), &header);
        benchmark::DoNotOptimize(headers);
    }
    state.SetItemsProcessed(state.iterations() * 60);
}

void getSixtyHeaders(benchmark::State& state) {
    std::vector<std::string> const fields = names();
    HTTPHeader header("value");
    HTTPHeaders headers;
    for (std::string const& field : fields) headers.setHeader(field.c_str(), &header);
    for (auto _ : state)
        for (std::string const& field : fields)
            benchmark::DoNotOptimize(headers.getHeader(field.c_str()));
    state.SetItemsProcessed(state.iterations() * 60);
}

constexpr int kBody = 8 * 1024 * 1024;

// Range: chunk size. The buffer is new each time, so that its growth counts.
void dump(benchmark::State& state) {
    HTTPMessage message;
    message.setContent(std::string(kBody, 'x').data(), kBody);
    for (auto _ : state) {
        QORByteBuffer buffer(1024, 1024);
        message.dump(buffer, static_cast<int>(state.range(0)));
        benchmark::DoNotOptimize(buffer.str());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kBody);
}

void copyIntoNewMemory(benchmark::State& state) {
    std::string const body(kBody, 'x');
    for (auto _ : state) {
        void* const copy = std::malloc(kBody);
        benchmark::DoNotOptimize(std::memcpy(copy, body.data(), kBody));
        benchmark::ClobberMemory();
        std::free(copy);
    }
    state.SetBytesProcessed(state.iterations() * kBody);
}

BENCHMARK(parse)->DenseRange(0, 2);
BENCHMARK(setSixtyHeaders);
BENCHMARK(getSixtyHeaders);
BENCHMARK(dump)->Arg(0)->Arg(16 * 1024);
BENCHMARK(copyIntoNewMemory);

}  // namespace
