#include "tools/trace/PcapFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include <pcap/pcap.h>
#include <unistd.h>

#include "tools/common/PrivateFile.h"

namespace {

constexpr std::size_t kSegment = 1460;  // Ethernet's 1500 without the two headers
constexpr std::size_t kHeader = 20;     // of IPv4 and of TCP, without options
// Microseconds between packets: made up, and where what is sent has its time.
constexpr std::int64_t kInterval = 1000, kLeastInterval = 1;
constexpr std::uint8_t kFin = 0x01, kSyn = 0x02, kPush = 0x08, kAck = 0x10;

constexpr std::size_t kFileBuffer = 1 << 18;

using Packet = std::array<std::uint8_t, 2 * kHeader + kSegment>;

void put16(Packet& to, std::size_t at, std::uint32_t value) {
    to[at] = static_cast<std::uint8_t>(value >> 8);
    to[at + 1] = static_cast<std::uint8_t>(value);
}

void put32(Packet& to, std::size_t at, std::uint32_t value) {
    put16(to, at, value >> 16);
    put16(to, at + 2, value);
}

// The internet checksum, RFC 1071, of the bytes from `from` to `to` upon a sum begun elsewhere.
// Four bytes at a time, in whatever order the machine has: the sum has the same.
std::uint32_t checksum(Packet const& bytes, std::size_t from, std::size_t to, std::uint32_t sum) {
    std::uint64_t words = 0;
    std::uint32_t word = 0;
    std::size_t i = from;
    for (; i + 4 <= to; i += 4) {
        std::memcpy(&word, bytes.data() + i, 4);
        words += word;
    }
    word = 0;
    std::memcpy(&word, bytes.data() + i, to - i);
    words += word;
    while (words >> 16) words = (words & 0xFFFF) + (words >> 16);
    auto const folded = static_cast<std::uint16_t>(words);
    std::uint8_t inOrder[2];
    std::memcpy(inOrder, &folded, 2);
    sum += static_cast<std::uint32_t>(inOrder[0] << 8) + inOrder[1];
    while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
    return ~sum & 0xFFFF;
}

std::FILE* openForWriting(std::string const& path) {
    int const descriptor = path == "-" ? ::dup(STDOUT_FILENO) : openPrivately(path);
    std::FILE* const file = descriptor == -1 ? nullptr : ::fdopen(descriptor, "wb");
    if (!file) throw std::system_error(errno, std::generic_category(), path);
    std::setvbuf(file, nullptr, _IOFBF, kFileBuffer);
    return file;
}

}  // namespace

void PcapFile::Closer::operator()(struct pcap* handle) const { pcap_close(handle); }
void PcapFile::Closer::operator()(struct pcap_dumper* dumper) const { pcap_dump_close(dumper); }

PcapFile::PcapFile(std::string const& path, PcapEndpoint client, PcapEndpoint server,
                   std::int64_t time)
    : m_path(path),
      m_client{client, 1000},
      m_server{server, 5000},
      m_microseconds(time < 0 ? 0 : time - 3 * kLeastInterval),
      m_interval(time < 0 ? kInterval : kLeastInterval) {
    m_handle.reset(pcap_open_dead(DLT_RAW, 65535));
    if (!m_handle) throw PcapError("out of memory");
    m_dumper.reset(pcap_dump_fopen(m_handle.get(), openForWriting(path)));
    if (!m_dumper) throw PcapError(pcap_geterr(m_handle.get()));
    packet(true, kSyn, {});
    packet(false, kSyn | kAck, {});
    packet(true, kAck, {});
}

PcapFile::~PcapFile() = default;

void PcapFile::write(bool fromClient, std::string_view bytes, bool ends, std::int64_t time) {
    m_microseconds = std::max(m_microseconds, time);
    while (!bytes.empty()) {
        std::string_view const segment = bytes.substr(0, kSegment);
        bytes.remove_prefix(segment.size());
        bool const pushed = bytes.empty() && ends;
        packet(fromClient, static_cast<std::uint8_t>(pushed ? kPush | kAck : kAck), segment);
    }
    if (ends) packet(!fromClient, kAck, {});
}

void PcapFile::finish() {
    packet(true, kFin | kAck, {});
    packet(false, kFin | kAck, {});
    packet(true, kAck, {});
    // Flushing tells of its own failure alone, the file of those before as well.
    bool const flushed = pcap_dump_flush(m_dumper.get()) == 0;
    if (!flushed || std::ferror(pcap_dump_file(m_dumper.get())))
        throw PcapError(m_path + ": could not be written");
}

void PcapFile::packet(bool fromClient, std::uint8_t flags, std::string_view bytes) {
    Side& from = fromClient ? m_client : m_server;
    Side const& to = fromClient ? m_server : m_client;
    Packet p;
    std::fill_n(p.begin(), 2 * kHeader, std::uint8_t{0});
    std::size_t const size = 2 * kHeader + bytes.size();
    std::copy(bytes.begin(), bytes.end(), p.begin() + 2 * kHeader);

    p[0] = 0x45;  // version 4, five words of header
    put16(p, 2, static_cast<std::uint32_t>(size));
    p[6] = 0x40;  // not to be fragmented
    p[8] = 64;    // hops
    p[9] = 6;     // TCP
    put32(p, 12, from.endpoint.address);
    put32(p, 16, to.endpoint.address);
    put16(p, 10, checksum(p, 0, kHeader, 0));

    put16(p, kHeader, from.endpoint.port);
    put16(p, kHeader + 2, to.endpoint.port);
    put32(p, kHeader + 4, from.next);
    put32(p, kHeader + 8, flags & kAck ? to.next : 0);
    p[kHeader + 12] = 0x50;  // five words of header
    p[kHeader + 13] = flags;
    put16(p, kHeader + 14, 65535);  // window
    // Of the pseudo header, RFC 9293 section 3.1, the addresses stand right before the segment.
    std::uint32_t const pseudo = 6 + static_cast<std::uint32_t>(kHeader + bytes.size());
    put16(p, kHeader + 16, checksum(p, 12, size, pseudo));

    from.next += static_cast<std::uint32_t>(bytes.size()) + (flags & (kSyn | kFin) ? 1 : 0);
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<decltype(header.ts.tv_sec)>(m_microseconds / 1000000);
    header.ts.tv_usec = static_cast<decltype(header.ts.tv_usec)>(m_microseconds % 1000000);
    header.caplen = header.len = static_cast<bpf_u_int32>(size);
    pcap_dump(reinterpret_cast<u_char*>(m_dumper.get()), &header, p.data());
    m_microseconds += m_interval;
}
