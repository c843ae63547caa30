#include "EveryReadSize.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    requireSameAtEveryReadSize(data, size, [](HTTPMessageReader& reader, HTTPMessage& message) {
        std::string uri;
        reader.getRequest(&message, &uri);
        return uri;
    });
    return 0;
}
