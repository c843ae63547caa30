#include "service/BodyDecoder.h"

#include <algorithm>
#include <cstring>

#include "foundation/AsciiText.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

constexpr char kNoDigits[] = "\"=\" without two digits in quoted-printable";
constexpr std::uint32_t kNone = 1U << 31;  // of a character that base64 has not

constexpr std::array<std::uint32_t, 256> kValues = [] {
    std::array<std::uint32_t, 256> values{};
    for (std::uint32_t& value : values) value = kNone;
    std::uint32_t next = 0;
    for (char const c : kBase64Digits) values[static_cast<unsigned char>(c)] = next++;
    return values;
}();

// The same where a character is the first, second, third or last of its group, so that a group
// takes no shifts. What base64 has not sets a bit below those of the three bytes.
constexpr std::array<std::uint32_t, 256> shifted(int bits) {
    std::array<std::uint32_t, 256> values{};
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = kValues[i] == kNone ? 1 : kValues[i] << bits;
    return values;
}
constexpr std::array<std::uint32_t, 256> kFirst = shifted(26), kSecond = shifted(20),
                                         kThird = shifted(14), kFourth = shifted(8);

}  // namespace

void BodyDecoder::refuse(char const* text) const {
    if (m_strict) throw ServiceError(ServiceError::Code::malformed, text);
}

std::size_t BodyDecoder::decode(std::string_view piece, char* out) {
    if (m_coding == TransferCoding::base64)
        return static_cast<std::size_t>(decodeBase64(piece, out) - out);
    if (m_coding == TransferCoding::quotedPrintable)
        return static_cast<std::size_t>(decodeQuoted(piece, out) - out);
    check(piece);
    std::copy(piece.begin(), piece.end(), out);
    return piece.size();
}

void BodyDecoder::check(std::string_view piece) const {
    if (!m_strict || m_coding == TransferCoding::binary) return;
    if (piece.find('\0') != std::string_view::npos) refuse("text that holds a zero byte");
    auto const isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (m_coding == TransferCoding::sevenBit && !std::all_of(piece.begin(), piece.end(), isAscii))
        refuse("7bit text that holds a byte above 127");
}

std::size_t BodyDecoder::finish(char* out) {
    if (m_coding == TransferCoding::quotedPrintable) {
        char* at = out;
        if (m_quoted == Quoted::digit) {
            refuse(kNoDigits);
            *at++ = '=';
            *at++ = m_digit;
        }
        m_quoted = Quoted::none;
        m_blankCount = 0;
        return static_cast<std::size_t>(at - out);
    }
    if (m_ended || m_characters == 0) return 0;
    refuse("base64 that ends within a group");
    return static_cast<std::size_t>(endGroup(out) - out);
}

// Four characters, three bytes; what is no whole group goes character by character.
char* BodyDecoder::decodeBase64(std::string_view piece, char* out) {
    auto const* at = reinterpret_cast<unsigned char const*>(piece.data());
    auto const* const end = at + piece.size();
    while (at != end) {
        if (m_characters == 0 && !m_ended) {
            for (; end - at >= 4; at += 4, out += 3) {
                std::uint32_t const group =
                    kFirst[at[0]] | kSecond[at[1]] | kThird[at[2]] | kFourth[at[3]];
                if ((group & 1) != 0) break;
                std::uint32_t const bytes = __builtin_bswap32(group);
                std::memcpy(out, &bytes, 4);  // the last is written over
            }
            if (at == end) break;
        }
        out = takeBase64(*at++, out);
    }
    return out;
}

char* BodyDecoder::takeBase64(unsigned char c, char* out) {
    if (c == '\r' || c == '\n' || isBlank(static_cast<char>(c))) return out;
    if (m_ended) {
        refuse("base64 that goes on behind its end");
        return out;
    }
    if (c == '=') {
        if (m_characters < 2) {
            refuse("padding within base64");
            return out;
        }
        if (m_characters + ++m_pads < 4) return out;
        m_ended = true;
        return endGroup(out);
    }
    if (kValues[c] == kNone) {
        refuse("a character that base64 has not");
        return out;
    }
    if (m_pads > 0) refuse("padding within base64");
    m_pads = 0;
    m_bits = m_bits << 6 | kValues[c];
    return ++m_characters < 4 ? out : endGroup(out);
}

// As many bytes as the characters of the group make.
char* BodyDecoder::endGroup(char* out) {
    std::uint32_t const bits = m_bits << 6 * (4 - m_characters);
    for (int i = 1; i < m_characters; ++i) *out++ = static_cast<char>(bits >> (24 - 8 * i) & 0xFF);
    m_bits = 0;
    m_characters = 0;
    return out;
}

char* BodyDecoder::decodeQuoted(std::string_view piece, char* out) {
    for (char const c : piece) out = takeQuoted(c, out);
    return out;
}

// Blanks before the end of a line were added on the way, RFC 2045 section 6.7.
char* BodyDecoder::takeQuoted(char c, char* out) {
    if (m_quoted != Quoted::none) return takeEscaped(c, out);
    if (isBlank(c)) {
        if (m_blankCount == m_blanks.size()) {
            refuse("a line of quoted-printable that is too long");
            out = giveBlanks(out);
        }
        m_blanks[m_blankCount++] = c;
        return out;
    }
    bool const endsLine = c == '\r' || c == '\n';
    if (endsLine)
        m_blankCount = 0;
    else
        out = giveBlanks(out);
    if (c == '=') {
        m_quoted = Quoted::equals;
        return out;
    }
    if (!endsLine && (c < ' ' || c == '\x7f')) refuse("a byte that quoted-printable has not");
    *out++ = c;
    return out;
}

char* BodyDecoder::giveBlanks(char* out) {
    out = std::copy_n(m_blanks.data(), m_blankCount, out);
    m_blankCount = 0;
    return out;
}

// Behind "=": two digits, or the end of a line that is none of the text's.
char* BodyDecoder::takeEscaped(char c, char* out) {
    Quoted const before = m_quoted;
    m_quoted = Quoted::none;
    if (before == Quoted::lineEnd) return c == '\n' ? out : takeQuoted(c, out);
    if (before == Quoted::digit) {
        if (hexDigitValue(c) < 0) return notEscaped(c, out);
        *out++ = static_cast<char>(hexDigitValue(m_digit) * 16 + hexDigitValue(c));
        m_digit = 0;
        return out;
    }
    if (c == '\n' || c == '\r') {
        m_blankCount = 0;
        m_quoted = c == '\r' ? Quoted::lineEnd : Quoted::none;
        return out;
    }
    if (isBlank(c) && m_blankCount < m_blanks.size()) {
        m_blanks[m_blankCount++] = c;
        m_quoted = Quoted::blanks;
        return out;
    }
    if (before == Quoted::blanks || hexDigitValue(c) < 0) return notEscaped(c, out);
    m_quoted = Quoted::digit;
    m_digit = c;
    return out;
}

// The "=" and what was read behind it are text after all.
char* BodyDecoder::notEscaped(char c, char* out) {
    refuse(kNoDigits);
    bool const hadDigit = m_digit != 0;
    *out++ = '=';
    if (hadDigit) *out++ = m_digit;
    m_digit = 0;
    out = giveBlanks(out);
    return takeQuoted(c, out);
}

}  // namespace postwire
