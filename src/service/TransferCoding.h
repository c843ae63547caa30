#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Export.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULOutputStream.h"

namespace postwire {

// How the bytes of a body stand on the wire, RFC 2045 section 6.
enum class TransferCoding { sevenBit, eightBit, binary, base64, quotedPrintable };

// What is done about a body that is not in its coding.
enum class Strictness {
    strict,   // ServiceError::Code::malformed
    lenient,  // as readers of mail do: what does not belong there is passed over or left as it is
};

// The name that Content-Transfer-Encoding has for it.
POSTWIRE_EXPORT std::string_view nameOf(TransferCoding coding);

// By that name in any letter case; none for one that RFC 2045 does not know.
POSTWIRE_EXPORT std::optional<TransferCoding> transferCodingOf(std::string_view name);

// How many bytes there will be of so many; none for quotedPrintable, where it depends on them.
POSTWIRE_EXPORT std::optional<std::uint64_t> encodedSize(TransferCoding coding, std::uint64_t size);

// Writes in a coding what is written to it; base64 and quotedPrintable in lines of 76 characters.
//
// Ownership: the stream beneath is borrowed.
// Rule: quotedPrintable takes CRLF for the end of a line and all else for text within one. The
//   other codings but base64 are the bytes themselves, which no one checks here.
class POSTWIRE_EXPORT EncodingOutputStream : public ZULOutputStream {
public:
    EncodingOutputStream(ZULOutputStream& out, TransferCoding coding);
    ~EncodingOutputStream() override;

    void write(char const* data, int length) override;

    // Ends the body; the stream beneath stays open.
    void close() override;

private:
    void addBase64Line(std::string_view bytes);
    void writeBase64(std::string_view bytes);
    void writeQuoted(char c);
    void addQuoted(char c, bool asItIs);
    void pass(std::size_t most);

    ZULOutputStream& m_out;
    TransferCoding m_coding;
    std::string m_held;     // not encoded yet, since it depends on what follows
    std::string m_encoded;  // on its way
    std::size_t m_column = 0;
    bool m_hasBegun = false;
};

// Reads what a stream gives in a coding, in constant memory.
//
// Ownership: the stream beneath is borrowed.
// Raises: ServiceError::Code::malformed where told to be strict; then it can't be read on.
class POSTWIRE_EXPORT DecodingInputStream : public ZULFilterInputStream {
public:
    DecodingInputStream(ZULInputStream& in, TransferCoding coding,
                        Strictness strictness = Strictness::strict);
    ~DecodingInputStream() override;

    using ZULFilterInputStream::read;
    int read(char* bytes, int n) override;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// The bytes that a body stands for.
POSTWIRE_EXPORT std::string decoded(std::string_view body, TransferCoding coding,
                                    Strictness strictness = Strictness::strict);

}  // namespace postwire
