// peer_bench CORPUS_DIRECTORY [Google Benchmark flags]
#include "cases.hpp"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (argc != 2) bench::fail("usage: peer_bench CORPUS_DIRECTORY [--benchmark_... flags]");
    bench::load_corpus(argv[1]);
    bench::register_all();
    for (const bench::Case& c : bench::cases()) {
        benchmark::RegisterBenchmark(c.name.c_str(), [&c](benchmark::State& state) {
            std::uint64_t news = bench::new_calls, mallocs = bench::malloc_calls;
            for (auto _ : state) c.run();
            double messages = double(state.iterations()) * double(c.messages);
            state.counters["new_per_msg"] = double(bench::new_calls - news) / messages;
            state.counters["malloc_per_msg"] = double(bench::malloc_calls - mallocs) / messages;
            state.SetItemsProcessed(std::int64_t(messages));
            state.SetBytesProcessed(std::int64_t(double(state.iterations()) * double(c.bytes)));
        });
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
