#pragma once

#include "service/Answer.h"
#include "service/KeptHeads.h"

namespace postwire {

struct Answer::Data {
    HTTPMessage message;
    KeptHeads heads;
    int status = 0;
    std::string reason;
    std::vector<std::string> files;
    std::uint64_t bytesSent = 0;
    std::uint64_t bytesReceived = 0;
    std::chrono::microseconds duration{};
    int traceError = 0;
};

}  // namespace postwire
