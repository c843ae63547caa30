#include "service/TransferCoding.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "foundation/AsciiText.h"
#include "service/BodyDecoder.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

constexpr std::array<std::string_view, 5> kNames = {"7bit", "8bit", "binary", "base64",
                                                    "quoted-printable"};
constexpr std::size_t kBlock = 16384;
constexpr std::size_t kBytesOfLine = 57;        // 76 characters in base64
constexpr std::size_t kLongestQuotedLine = 75;  // and a "=" behind it

bool isBlankOrReturn(char c) { return isBlank(c) || c == '\r'; }

}  // namespace

std::string_view nameOf(TransferCoding coding) { return kNames[static_cast<std::size_t>(coding)]; }

std::optional<TransferCoding> transferCodingOf(std::string_view name) {
    for (std::size_t i = 0; i < kNames.size(); ++i)
        if (equalsInAnyCase(name, kNames[i])) return static_cast<TransferCoding>(i);
    return {};
}

std::optional<std::uint64_t> encodedSize(TransferCoding coding, std::uint64_t size) {
    if (coding == TransferCoding::quotedPrintable) return {};
    if (coding != TransferCoding::base64 || size == 0) return size;
    std::uint64_t const lines = (size - 1) / kBytesOfLine + 1;
    return (size + 2) / 3 * 4 + 2 * (lines - 1);
}

// EncodingOutputStream

EncodingOutputStream::EncodingOutputStream(ZULOutputStream& out, TransferCoding coding)
    : m_out(out), m_coding(coding) {}

EncodingOutputStream::~EncodingOutputStream() = default;

void EncodingOutputStream::write(char const* data, int length) {
    if (length <= 0) return;
    std::string_view const bytes(data, static_cast<std::size_t>(length));
    if (m_coding == TransferCoding::base64) {
        writeBase64(bytes);
    } else if (m_coding == TransferCoding::quotedPrintable) {
        for (char const c : bytes) writeQuoted(c);
    } else {
        m_out.write(data, length);
    }
}

void EncodingOutputStream::writeBase64(std::string_view bytes) {
    if (!m_held.empty()) {
        std::string_view const first = bytes.substr(0, kBytesOfLine - m_held.size());
        m_held += first;
        bytes.remove_prefix(first.size());
        if (m_held.size() < kBytesOfLine) return;
        addBase64Line(m_held);
        m_held.clear();
    }
    for (; bytes.size() >= kBytesOfLine; bytes.remove_prefix(kBytesOfLine))
        addBase64Line(bytes.substr(0, kBytesOfLine));
    m_held = bytes;
}

void EncodingOutputStream::addBase64Line(std::string_view bytes) {
    if (m_hasBegun) m_encoded += "\r\n";
    m_hasBegun = true;
    appendBase64(m_encoded, bytes);
    pass(kBlock);
}

// A blank before the end of a line would be lost on the way, and a CR alone is none.
void EncodingOutputStream::writeQuoted(char c) {
    if (!m_held.empty()) {
        char const held = m_held.front();
        m_held.clear();
        if (held == '\r' && c == '\n') {
            m_encoded += "\r\n";
            m_column = 0;
            return;
        }
        addQuoted(held, isBlank(held) && c != '\r');
    }
    if (isBlankOrReturn(c))
        m_held = c;
    else
        addQuoted(c, c > ' ' && c < '\x7f' && c != '=');
    pass(kBlock);
}

void EncodingOutputStream::addQuoted(char c, bool asItIs) {
    std::size_t const width = asItIs ? 1 : 3;
    if (m_column + width > kLongestQuotedLine) {
        m_encoded += "=\r\n";
        m_column = 0;
    }
    m_column += width;
    auto const byte = static_cast<unsigned char>(c);
    char const quoted[] = {'=', upperHexDigit(byte >> 4U), upperHexDigit(byte)};
    if (asItIs)
        m_encoded += c;
    else
        m_encoded.append(quoted, sizeof quoted);
}

void EncodingOutputStream::close() {
    if (!m_held.empty()) {
        if (m_coding == TransferCoding::base64)
            addBase64Line(m_held);
        else
            addQuoted(m_held.front(), false);
    }
    m_held.clear();
    pass(0);
}

void EncodingOutputStream::pass(std::size_t most) {
    if (m_encoded.size() <= most) return;
    m_out.write(m_encoded.data(), static_cast<int>(m_encoded.size()));
    m_encoded.clear();
}

// DecodingInputStream

struct DecodingInputStream::State {
    State(TransferCoding coding, Strictness strictness) : decoder(coding, strictness) {}

    BodyDecoder decoder;
    std::array<char, kBlock> in;
    std::array<char, kBlock + BodyDecoder::kMostBeyond> out;
    std::size_t begin = 0;  // of what is decoded and not given yet
    std::size_t end = 0;
    bool ended = false;
};

DecodingInputStream::DecodingInputStream(ZULInputStream& in, TransferCoding coding,
                                         Strictness strictness)
    : ZULFilterInputStream(in), m_state(std::make_unique<State>(coding, strictness)) {}

DecodingInputStream::~DecodingInputStream() = default;

int DecodingInputStream::read(char* bytes, int n) {
    State& s = *m_state;
    if (n <= 0) return ZULFilterInputStream::read(bytes, n);
    while (s.begin == s.end) {
        if (s.ended) return -1;
        int const got = ZULFilterInputStream::read(s.in.data(), static_cast<int>(s.in.size()));
        s.ended = got < 0;
        s.begin = 0;
        s.end = s.ended
                    ? s.decoder.finish(s.out.data())
                    : s.decoder.decode({s.in.data(), static_cast<std::size_t>(got)}, s.out.data());
    }
    std::size_t const given = std::min(s.end - s.begin, static_cast<std::size_t>(n));
    std::memcpy(bytes, s.out.data() + s.begin, given);
    s.begin += given;
    return static_cast<int>(given);
}

std::string decoded(std::string_view body, TransferCoding coding, Strictness strictness) {
    BodyDecoder decoder(coding, strictness);
    std::string bytes(decoder.most(body.size()), '\0');
    std::size_t size = decoder.decode(body, bytes.data());
    size += decoder.finish(bytes.data() + size);
    bytes.resize(size);
    return bytes;
}

}  // namespace postwire
