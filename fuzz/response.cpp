#include "EveryReadSize.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    requireSameAtEveryReadSize(data, size, [](HTTPMessageReader& reader, HTTPMessage& message) {
        HTTPMessage::StatusCode status{};
        std::string reason;
        reader.getResponse(&message, &status, &reason);
        return std::to_string(static_cast<int>(status)) + " " + reason;
    });
    return 0;
}
