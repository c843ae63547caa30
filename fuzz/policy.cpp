#include "EveryReadSize.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

namespace {

template <class Call>
void requireHttpErrors(Call const& call) {
    try {
        call();
    } catch (HTTPException const&) {
        throw;
    } catch (QORThrowable const& t) {
        require(t.getThrowableName(), "HTTPException", "the error of bad input");
    }
}

}  // namespace

// The first byte says which of the policy's switches are on; its limits are small, so that they are
// met. Whatever the read size is, the same is read, and bad input ends in an HTTPException.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    HTTPReadPolicy policy = HTTPReadPolicy::hardened();
    unsigned const off = *data & 7U;
    policy.boundMessage = (off & 1U) == 0;
    policy.partsEndAtBoundary = (off & 2U) == 0;
    policy.strictFraming = (off & 4U) == 0;
    policy.maxHeaders = 10;
    policy.maxParts = 20;
    policy.maxLine = policy.maxPartHead = 300;
    policy.maxHead = policy.maxBody = 1000;
    policy.maxChunkFraming = 100;
    policy.maxChunkFramingRatio = 4;
    requireSameAtEveryReadSize(data + 1, size - 1,
                               [&policy](HTTPMessageReader& reader, HTTPMessage& message) {
                                   std::string uri;
                                   reader.setReadPolicy(policy);
                                   requireHttpErrors([&] { reader.getRequest(&message, &uri); });
                                   return uri;
                               });
    return 0;
}
