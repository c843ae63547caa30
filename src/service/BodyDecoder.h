#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "service/TransferCoding.h"

namespace postwire {

// Decodes a body that is handed over piece by piece.
//
// Raises: ServiceError::Code::malformed where told to be strict; a body that was cut short is then
//   found at its end.
class BodyDecoder {
public:
    // So many bytes more than a piece has may come of it: those held back from the one before, and
    // what a store of four bytes writes beyond three.
    static constexpr std::size_t kMostBeyond = 132;

    BodyDecoder(TransferCoding coding, Strictness strictness)
        : m_coding(coding), m_strict(strictness == Strictness::strict) {}

    // Room for what may come of so many bytes, finish included.
    [[nodiscard]] std::size_t most(std::size_t size) const {
        return (m_coding == TransferCoding::base64 ? size / 4 * 3 : size) + kMostBeyond;
    }

    // Writes what a piece stands for; the number of bytes.
    std::size_t decode(std::string_view piece, char* out);
    // What was held back to the end.
    std::size_t finish(char* out);

private:
    enum class Quoted { none, equals, digit, blanks, lineEnd };

    void check(std::string_view piece) const;
    char* decodeBase64(std::string_view piece, char* out);
    char* takeBase64(unsigned char c, char* out);
    char* endGroup(char* out);
    char* decodeQuoted(std::string_view piece, char* out);
    char* takeQuoted(char c, char* out);
    char* takeEscaped(char c, char* out);
    char* notEscaped(char c, char* out);
    char* giveBlanks(char* out);
    void refuse(char const* text) const;

    TransferCoding m_coding;
    bool m_strict;
    bool m_ended = false;      // by padding
    std::uint32_t m_bits = 0;  // of the characters of a group
    int m_characters = 0;
    int m_pads = 0;
    Quoted m_quoted = Quoted::none;  // what stands behind "="
    char m_digit = 0;
    std::array<char, 128> m_blanks;  // that are text, or stand before the end of a line
    std::size_t m_blankCount = 0;
};

}  // namespace postwire
