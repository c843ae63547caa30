#pragma once

#include <array>
#include <atomic>
#include <string>

#include "service/ExchangeReport.h"
#include "service/Server.h"

// Counts exchanges by status, their bytes, and how long they took from the first byte of the
// request to the last of the answer, within an eighth.
class Statistics {
public:
    // From any thread.
    void add(postwire::ExchangeReport const& report);

    // For people, and for programs that look for "name value"; up to an empty line.
    [[nodiscard]] std::string text(postwire::ServerLoad const& load) const;

private:
    // Eight for each doubling of a microsecond.
    static constexpr std::size_t kBuckets = 8 * 40;

    static std::size_t bucketOf(unsigned long long microseconds);
    [[nodiscard]] unsigned long long quantile(double share) const;

    std::array<std::atomic<unsigned long long>, 600> m_statuses{};
    std::array<std::atomic<unsigned long long>, kBuckets> m_times{};
    std::atomic<long long> m_bytesIn{0};
    std::atomic<long long> m_bytesOut{0};
};
