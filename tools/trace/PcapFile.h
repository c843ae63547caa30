#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

// One side of a connection as a capture shows it.
struct PcapEndpoint {
    std::uint32_t address;  // IPv4, host byte order
    std::uint16_t port;
};

class PcapError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes a capture file of one made-up TCP connection: handshake, data in segments that an Ethernet
// would carry, closing. Addresses and ports are not those of the real connection, which a trace
// does not hold; bytes and their order are, and times where they are given.
class PcapFile {
public:
    // Creates the file, which its owner alone may read, and writes the handshake, right before this
    // time in microseconds, or at made-up times where it is negative; "-" stands for standard
    // output.
    PcapFile(std::string const& path, PcapEndpoint client, PcapEndpoint server, std::int64_t time);
    PcapFile(PcapFile const&) = delete;
    PcapFile& operator=(PcapFile const&) = delete;
    ~PcapFile();

    // What one side sends next, at this time or, where that is later, right behind the packet
    // before. The other side acknowledges what `ends` a call.
    void write(bool fromClient, std::string_view bytes, bool ends, std::int64_t time);

    // Writes the closing packets and reports what could not be written.
    void finish();

private:
    struct Side {
        PcapEndpoint endpoint;
        std::uint32_t next;  // sequence number of its next byte
    };
    struct Closer {
        void operator()(struct pcap* handle) const;
        void operator()(struct pcap_dumper* dumper) const;
    };

    void packet(bool fromClient, std::uint8_t flags, std::string_view bytes);

    std::string m_path;
    Side m_client;
    Side m_server;
    std::int64_t m_microseconds;  // of the next packet
    std::int64_t m_interval;
    std::unique_ptr<struct pcap, Closer> m_handle;
    std::unique_ptr<struct pcap_dumper, Closer> m_dumper;
};
