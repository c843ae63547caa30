#include "tools/serve/Statistics.h"

#include <algorithm>

namespace {

// The least value that stands in a bucket.
unsigned long long leastOf(std::size_t bucket) {
    if (bucket < 8) return bucket;
    return (8ULL + bucket % 8) << (bucket / 8 - 1);
}

void appendLine(std::string& to, std::string const& name, unsigned long long value) {
    to.append(name).append(" ").append(std::to_string(value)).append("\n");
}

}  // namespace

std::size_t Statistics::bucketOf(unsigned long long microseconds) {
    std::size_t doublings = 0;
    for (; microseconds >= 16; microseconds /= 2) ++doublings;
    auto const rest = static_cast<std::size_t>(microseconds);  // below 16
    return std::min(8 * doublings + rest, kBuckets - 1);
}

void Statistics::add(postwire::ExchangeReport const& report) {
    auto const status = static_cast<std::size_t>(std::clamp(report.status, 0, 599));
    ++m_statuses[status];
    m_bytesIn += report.bytesIn;
    m_bytesOut += report.bytesOut;
    auto const time = report.head + report.body + report.handler + report.answer;
    ++m_times[bucketOf(static_cast<unsigned long long>(std::max<long long>(time.count(), 0)))];
}

// The upper end of the bucket that the share falls into.
unsigned long long Statistics::quantile(double share) const {
    unsigned long long all = 0;
    for (auto const& count : m_times) all += count;
    unsigned long long seen = 0;
    for (std::size_t bucket = 0; bucket < kBuckets; ++bucket) {
        seen += m_times[bucket];
        if (all > 0 && static_cast<double>(seen) >= share * static_cast<double>(all))
            return leastOf(bucket + 1) - 1;
    }
    return 0;
}

std::string Statistics::text(postwire::ServerLoad const& load) const {
    std::string text;
    for (std::size_t status = 0; status < m_statuses.size(); ++status)
        if (m_statuses[status] > 0)
            appendLine(text, "requests_" + std::to_string(status), m_statuses[status]);
    appendLine(text, "bytes_in", static_cast<unsigned long long>(m_bytesIn.load()));
    appendLine(text, "bytes_out", static_cast<unsigned long long>(m_bytesOut.load()));
    appendLine(text, "connections", static_cast<unsigned long long>(load.connections));
    appendLine(text, "connections_idle", static_cast<unsigned long long>(load.idle));
    appendLine(text, "memory", load.memory);
    appendLine(text, "p50_microseconds", quantile(0.50));
    appendLine(text, "p99_microseconds", quantile(0.99));
    return text += "\n";
}
