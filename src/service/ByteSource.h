#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Export.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULOutputStream.h"

namespace postwire {

// Bytes to be sent: from memory, from a file, or from a stream.
//
// Ownership: a copy stands for the same bytes. Files are opened when they are written, streams are
//   borrowed.
// Raises: ServiceError::Code::source where a file is none that can be read, or where a source does
//   not give as many bytes as it said; then no byte beyond that size was written.
class POSTWIRE_EXPORT ByteSource {
public:
    // Reads at most so many bytes; 0 at the end.
    using Reader = std::function<std::size_t(char*, std::size_t)>;

    // Bytes of its own, which are moved here.
    ByteSource(std::string bytes);
    ByteSource(char const* text);
    // Bytes that stay where they are until they have been written.
    static ByteSource borrowed(std::string_view bytes);

    // A regular file, with the size that it has now.
    static ByteSource file(std::string path);

    // Whatever the stream still gives; it can be written once.
    static ByteSource stream(std::istream& in, std::optional<std::uint64_t> size = {});
    static ByteSource stream(ZULInputStream& in, std::optional<std::uint64_t> size = {});

    // Whatever a reader gives that is asked for anew each time that the bytes are written.
    static ByteSource reader(std::function<Reader()> open, std::optional<std::uint64_t> size = {});

    [[nodiscard]] std::optional<std::uint64_t> size() const { return m_size; }

    // Whether they can be written more than once, as a request that is sent again wants it.
    [[nodiscard]] bool isRepeatable() const { return m_repeatable; }

    // Null where the bytes are not in memory.
    [[nodiscard]] std::string_view const* bytes() const { return m_open ? nullptr : &m_bytes; }

    void writeTo(ZULOutputStream& out) const;

private:
    ByteSource() = default;

    std::shared_ptr<std::string const> m_owned;
    std::string_view m_bytes;
    std::function<Reader()> m_open;  // where they are not in memory
    std::optional<std::uint64_t> m_size;
    bool m_repeatable = true;
    std::string m_name;  // for a person, where they can't be read
};

}  // namespace postwire
