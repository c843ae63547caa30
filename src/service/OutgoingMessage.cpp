#include "service/OutgoingMessage.h"

#include <algorithm>

#include "foundation/AsciiText.h"
#include "service/MediaType.h"
#include "service/RandomDigits.h"
#include "service/ServiceError.h"

namespace postwire {

namespace {

[[noreturn]] void raiseUsage(std::string const& text) {
    throw ServiceError(ServiceError::Code::usage, text);
}

void requireField(std::string_view text) {
    if (std::any_of(text.begin(), text.end(), isControlCharacter))
        raiseUsage("a text for a header holds a control character");
}

void requireId(std::string_view id) {
    auto const isGood = [](char c) {
        return c > ' ' && c < '\x7f' &&
               std::string_view("<>\"\\").find(c) == std::string_view::npos;
    };
    if (id.empty() || !std::all_of(id.begin(), id.end(), isGood))
        raiseUsage("not a Content-ID: " + std::string(id));
}

std::string_view soapType(SoapVersion version) {
    return version == SoapVersion::soap11 ? "text/xml" : "application/soap+xml";
}

class Counter : public ZULOutputStream {
public:
    void write(char const*, int length) override { count += static_cast<std::uint64_t>(length); }

    std::uint64_t count = 0;
};

void writeEncoded(OutgoingAttachment const& part, ZULOutputStream& out) {
    EncodingOutputStream encoder(out, part.coding);
    part.body.writeTo(encoder);
    encoder.close();
}

std::optional<std::uint64_t> wireSize(OutgoingAttachment const& part) {
    if (!part.body.size()) return {};
    if (part.coding != TransferCoding::quotedPrintable)
        return encodedSize(part.coding, *part.body.size());
    if (!part.body.bytes()) return {};
    Counter counter;
    writeEncoded(part, counter);
    return counter.count;
}

void writeText(ZULOutputStream& out, std::string const& text) {
    out.write(text.data(), static_cast<int>(text.size()));
}

}  // namespace

OutgoingMessage::OutgoingMessage(SoapVersion version, ByteSource envelope)
    : m_version(version), m_idSuffix("." + randomDigits() + "@postwire") {
    if (version == SoapVersion::none) raiseUsage("a message in SOAP without its version");
    m_charset = "utf-8";
    m_parts.push_back({std::move(envelope), {}, "root" + m_idSuffix, {}, {}});
    renewBoundary();
}

OutgoingMessage::OutgoingMessage(std::string type, ByteSource body)
    : m_version(SoapVersion::none), m_idSuffix("." + randomDigits() + "@postwire") {
    requireField(type);
    m_parts.push_back({std::move(body), std::move(type), "root" + m_idSuffix, {}, {}});
    renewBoundary();
}

void OutgoingMessage::setAction(std::string action) {
    requireField(action);
    // The header of SOAP 1.1 has no way to write it.
    if (action.find('"') != std::string::npos) raiseUsage("an action that holds a quote");
    m_action = std::move(action);
}

void OutgoingMessage::setCharset(std::string charset) {
    requireField(charset);
    m_charset = std::move(charset);
}

void OutgoingMessage::setMtom(bool mtom) { m_mtom = mtom; }

void OutgoingMessage::setNested(bool nested) { m_nested = nested; }

void OutgoingMessage::setStart(std::string contentId) {
    if (contentId != start()) requireNewId(contentId);
    m_parts.front().contentId = std::move(contentId);
}

void OutgoingMessage::setEnvelopeCoding(TransferCoding coding) { m_parts.front().coding = coding; }

// A reader takes a line that begins like the boundary around for that, so the inner one doesn't.
std::string OutgoingMessage::innerBoundary() const { return "in-" + m_boundary; }

void OutgoingMessage::setBoundary(std::string boundary) {
    auto const isPlain = [](char c) {
        return isLetterOrDigit(c) ||
               (c != '\0' && std::string_view("'+_.-").find(c) != std::string_view::npos);
    };
    if (boundary.empty() || boundary.size() > 67 ||
        !std::all_of(boundary.begin(), boundary.end(), isPlain))
        raiseUsage("a boundary is 1 to 67 letters, digits and \"'+_.-\"");
    if (occursInParts(boundary)) raiseUsage("the boundary occurs in a part");
    m_boundary = std::move(boundary);
    m_ownBoundary = true;
}

bool OutgoingMessage::occursInParts(std::string const& boundary) const {
    return std::any_of(m_parts.begin(), m_parts.end(), [&](OutgoingAttachment const& part) {
        std::string_view const* const bytes = part.body.bytes();
        return bytes && bytes->find(boundary) != std::string_view::npos;
    });
}

void OutgoingMessage::renewBoundary() {
    do m_boundary = "part-" + randomDigits();
    while (occursInParts(m_boundary));
}

void OutgoingMessage::requireNewId(std::string const& contentId) const {
    requireId(contentId);
    for (OutgoingAttachment const& part : m_parts)
        if (part.contentId == contentId) raiseUsage("two parts have the Content-ID " + contentId);
}

std::string OutgoingMessage::attach(OutgoingAttachment attachment) {
    if (attachment.contentId.empty())
        attachment.contentId = "part" + std::to_string(m_parts.size()) + m_idSuffix;
    requireNewId(attachment.contentId);
    requireField(attachment.type);
    requireField(attachment.location);
    std::string_view const* const bytes = attachment.body.bytes();
    bool const occurs = bytes && bytes->find(m_boundary) != std::string_view::npos;
    if (occurs && m_ownBoundary) raiseUsage("the boundary occurs in a part");
    m_parts.push_back(std::move(attachment));
    if (occurs) renewBoundary();
    return m_parts.back().contentId;
}

// As it were alone.
std::string OutgoingMessage::envelopeType() const {
    if (m_version == SoapVersion::none) return m_parts.front().type;
    std::string type(soapType(m_version));
    if (!m_charset.empty()) MediaType::append(type, "charset", m_charset);
    if (m_version == SoapVersion::soap12 && !m_action.empty())
        MediaType::append(type, "action", m_action);
    return type;
}

// In a multipart message; XOP names the type that it wraps up.
std::string OutgoingMessage::rootType() const {
    if (!m_mtom) return envelopeType();
    std::string type = "application/xop+xml";
    if (!m_charset.empty()) MediaType::append(type, "charset", m_charset);
    MediaType::append(type, "type", MediaType(envelopeType()).value());
    return type;
}

std::string OutgoingMessage::contentType() const {
    std::string root = rootType();
    if (!isMultipart()) return root;
    std::string type = "multipart/related";
    MediaType::append(type, "boundary", m_boundary);
    MediaType::append(type, "type", MediaType(root).value());
    MediaType::append(type, "start", "<" + start() + ">");
    if (m_mtom) MediaType::append(type, "start-info", MediaType(envelopeType()).value());
    if (m_version == SoapVersion::soap12 && !m_action.empty())
        MediaType::append(type, "action", m_action);
    return type;
}

std::vector<std::pair<std::string, std::string>> OutgoingMessage::requestFields() const {
    if (m_version == SoapVersion::soap12) return {};
    if (m_version == SoapVersion::none && m_action.empty()) return {};
    return {{"SOAPAction", "\"" + m_action + "\""}};
}

// A length, where there is one, for readers that do not look for delimiters.
std::string OutgoingMessage::headOf(std::size_t index) const {
    OutgoingAttachment const& part = m_parts[index];
    std::string head = "Content-Type: " + (index == 0 ? rootType() : part.type);
    head.append("\r\nContent-Transfer-Encoding: ").append(nameOf(part.coding));
    head += "\r\nContent-ID: <" + part.contentId + ">\r\n";
    if (!part.location.empty()) head += "Content-Location: " + part.location + "\r\n";
    if (!part.fileName.empty()) {
        head += "Content-Disposition: attachment";
        MediaType::append(head, "filename", part.fileName);
        head += "\r\n";
    }
    if (auto const size = wireSize(part))
        head += "Content-Length: " + std::to_string(*size) + "\r\n";
    return head + "\r\n";
}

// What stands between the parts, and the parts, in order.
template <class Text, class Body>
void OutgoingMessage::forEachPiece(Text text, Body body) const {
    if (!isMultipart()) {
        OutgoingAttachment alone = m_parts.front();
        alone.coding = TransferCoding::binary;  // HTTP itself knows no other
        return body(alone);
    }
    std::string const inner = innerBoundary();
    std::string begin = "--" + m_boundary + "\r\n";
    for (std::size_t i = 0; i < m_parts.size(); ++i) {
        if (i == 1 && m_nested)
            begin.append("Content-Type: multipart/mixed; boundary=")
                .append(inner)
                .append("\r\n\r\n--")
                .append(inner)
                .append("\r\n");
        text(begin + headOf(i));
        body(m_parts[i]);
        begin = "\r\n--" + (m_nested && i > 0 ? inner : m_boundary) + "\r\n";
    }
    bool const hasInner = m_nested && m_parts.size() > 1;
    text((hasInner ? "\r\n--" + inner + "--" : std::string()) + "\r\n--" + m_boundary + "--\r\n");
}

std::optional<std::uint64_t> OutgoingMessage::size() const {
    std::optional<std::uint64_t> size = 0;
    auto const add = [&](std::optional<std::uint64_t> n) {
        if (size && n)
            *size += *n;
        else
            size.reset();
    };
    forEachPiece([&](std::string const& text) { add(text.size()); },
                 [&](OutgoingAttachment const& part) { add(wireSize(part)); });
    return size;
}

bool OutgoingMessage::isRepeatable() const {
    return std::all_of(m_parts.begin(), m_parts.end(),
                       [](OutgoingAttachment const& part) { return part.body.isRepeatable(); });
}

void OutgoingMessage::write(ZULOutputStream& out) const {
    forEachPiece([&](std::string const& text) { writeText(out, text); },
                 [&](OutgoingAttachment const& part) { writeEncoded(part, out); });
}

}  // namespace postwire
