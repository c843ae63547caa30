// Decoding base64 with line ends, beside OpenSSL.

#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include "foundation/ZULMemoryOutputStream.h"

#include "service/TransferCoding.h"

namespace {

using postwire::TransferCoding;

std::string encodedBody() {
    std::string bytes(1 << 20, '\0');
    unsigned state = 1;
    for (char& c : bytes) c = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
    ZULMemoryOutputStream out(1 << 21, 1 << 20);
    postwire::EncodingOutputStream encoder(out, TransferCoding::base64);
    encoder.write(bytes.data(), static_cast<int>(bytes.size()));
    encoder.close();
    return {out.bytes(), static_cast<std::size_t>(out.length())};
}

void count(benchmark::State& state, std::string const& body) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(body.size()));
}

void BM_DecodeBase64(benchmark::State& state) {
    std::string const body = encodedBody();
    for (auto _ : state) benchmark::DoNotOptimize(postwire::decoded(body, TransferCoding::base64));
    count(state, body);
}
BENCHMARK(BM_DecodeBase64);

void BM_DecodeBase64OpenSsl(benchmark::State& state) {
    std::string const body = encodedBody();
    EVP_ENCODE_CTX* const context = EVP_ENCODE_CTX_new();
    for (auto _ : state) {
        std::string out(body.size(), '\0');
        auto* const bytes = reinterpret_cast<unsigned char*>(out.data());
        int size = 0, rest = 0;
        EVP_DecodeInit(context);
        EVP_DecodeUpdate(context, bytes, &size, reinterpret_cast<unsigned char const*>(body.data()),
                         static_cast<int>(body.size()));
        EVP_DecodeFinal(context, bytes + size, &rest);
        benchmark::DoNotOptimize(out);
    }
    EVP_ENCODE_CTX_free(context);
    count(state, body);
}
BENCHMARK(BM_DecodeBase64OpenSsl);

}  // namespace
