#include "service/ByteSource.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "service/ServiceError.h"

namespace postwire {

namespace {

constexpr std::size_t kBlock = 65536;
constexpr std::size_t kLongestWrite = 1 << 20;  // a stream takes an int

[[noreturn]] void raise(std::string const& text, int systemError) {
    throw ServiceError(ServiceError::Code::source, text, systemError);
}

ByteSource::Reader readerOf(std::istream& in) {
    return [&in](char* bytes, std::size_t n) {
        in.read(bytes, static_cast<std::streamsize>(n));
        if (in.bad()) raise("a stream can't be read", errno);
        return static_cast<std::size_t>(in.gcount());
    };
}

}  // namespace

ByteSource::ByteSource(std::string bytes)
    : m_owned(std::make_shared<std::string const>(std::move(bytes))),
      m_bytes(*m_owned),
      m_size(m_bytes.size()) {}

ByteSource::ByteSource(char const* text) : ByteSource(std::string(text)) {}

ByteSource ByteSource::borrowed(std::string_view bytes) {
    ByteSource source;
    source.m_bytes = bytes;
    source.m_size = bytes.size();
    return source;
}

ByteSource ByteSource::file(std::string path) {
    std::error_code error;
    std::uintmax_t const size = std::filesystem::file_size(path, error);
    if (error) raise(path, error.value());
    auto const open = [path]() -> Reader {
        auto const in = std::make_shared<std::ifstream>(path, std::ios::binary);
        if (!*in) raise(path, errno);
        return [in](char* bytes, std::size_t n) { return readerOf(*in)(bytes, n); };
    };
    ByteSource source = reader(open, size);
    source.m_name = std::move(path);
    return source;
}

ByteSource ByteSource::stream(std::istream& in, std::optional<std::uint64_t> size) {
    ByteSource source = reader([&in] { return readerOf(in); }, size);
    source.m_repeatable = false;
    return source;
}

ByteSource ByteSource::stream(ZULInputStream& in, std::optional<std::uint64_t> size) {
    auto const read = [&in](char* bytes, std::size_t n) {
        return static_cast<std::size_t>(std::max(in.read(bytes, static_cast<int>(n)), 0));
    };
    ByteSource source = reader([read] { return Reader(read); }, size);
    source.m_repeatable = false;
    return source;
}

ByteSource ByteSource::reader(std::function<Reader()> open, std::optional<std::uint64_t> size) {
    ByteSource source;
    source.m_open = std::move(open);
    source.m_size = size;
    source.m_name = "what was to be sent";
    return source;
}

void ByteSource::writeTo(ZULOutputStream& out) const {
    if (!m_open) {
        for (std::string_view rest = m_bytes; !rest.empty();) {
            std::size_t const n = std::min(rest.size(), kLongestWrite);
            out.write(rest.data(), static_cast<int>(n));
            rest.remove_prefix(n);
        }
        return;
    }
    Reader const read = m_open();
    std::string block(kBlock, '\0');
    std::uint64_t written = 0;
    while (std::size_t const n = read(block.data(), block.size())) {
        // The size is on the wire already: more would be read as what follows.
        if (m_size && n > *m_size - written) raise(m_name + " has more bytes than it had", 0);
        written += n;
        out.write(block.data(), static_cast<int>(n));
    }
    if (m_size && written != *m_size) raise(m_name + " has fewer bytes than it had", 0);
}

}  // namespace postwire
