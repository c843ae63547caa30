#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Export.h"
#include "foundation/ZULOutputStream.h"

#include "service/ByteSource.h"
#include "service/SoapVersion.h"
#include "service/TransferCoding.h"

namespace postwire {

// What goes along with an envelope. Empty texts are left out, but for the Content-ID: one is made.
struct POSTWIRE_EXPORT OutgoingAttachment {
    ByteSource body;
    std::string type = "application/octet-stream";
    std::string contentId{};  // without angle brackets
    std::string location{};   // Content-Location
    std::string fileName{};   // in UTF-8, for Content-Disposition
    TransferCoding coding = TransferCoding::binary;
};

// A message to be sent, as a request or as an answer: an envelope, and attachments in
// multipart/related, RFC 2387, or MTOM.
//
// Ownership: the sources of its bytes say what they borrow.
// Raises: ServiceError::Code::usage for a text that can't stand in a header, for a Content-ID that
//   two parts have and for a boundary that occurs in a part; Code::source as ByteSource does.
// Rule: between the parts stand 128 random bits, which occur in no part that is in memory. What a
//   handler or a client sends may be written to any stream.
class POSTWIRE_EXPORT OutgoingMessage {
public:
    // One in SOAP, in UTF-8 unless said otherwise.
    OutgoingMessage(SoapVersion version, ByteSource envelope);
    // One of any type.
    OutgoingMessage(std::string type, ByteSource body);

    // A URI; in SOAP 1.1 it goes into a header of its own, in 1.2 into the type.
    void setAction(std::string action);
    // Of the envelope; empty: none is named.
    void setCharset(std::string charset);
    // Wraps the envelope up as XOP, with attachments or without.
    void setMtom(bool mtom = true);
    // The attachments stand in a multipart part of their own.
    void setNested(bool nested = true);
    // The envelope's own Content-ID and coding.
    void setStart(std::string contentId);
    void setEnvelopeCoding(TransferCoding coding);
    // Instead of a random one: 1 to 67 letters, digits and "'+_.-".
    void setBoundary(std::string boundary);

    // The Content-ID, without angle brackets, for the envelope to refer to.
    std::string attach(OutgoingAttachment attachment);

    // Content-Type of the whole.
    [[nodiscard]] std::string contentType() const;
    // Names and texts of the other header lines that a request has.
    [[nodiscard]] std::vector<std::pair<std::string, std::string>> requestFields() const;
    // In bytes; none where a part has none, or is to be quoted-printable and not in memory.
    [[nodiscard]] std::optional<std::uint64_t> size() const;
    // Whether it can be written more than once.
    [[nodiscard]] bool isRepeatable() const;
    [[nodiscard]] bool isMultipart() const { return m_mtom || m_parts.size() > 1; }
    // What an envelope refers to it by.
    [[nodiscard]] std::string const& start() const { return m_parts.front().contentId; }

    // The body, piece by piece; exactly as many bytes as size says.
    void write(ZULOutputStream& out) const;

private:
    template <class Text, class Body>
    void forEachPiece(Text text, Body body) const;
    [[nodiscard]] std::string envelopeType() const;
    [[nodiscard]] std::string rootType() const;
    [[nodiscard]] std::string headOf(std::size_t part) const;
    [[nodiscard]] std::string innerBoundary() const;
    [[nodiscard]] bool occursInParts(std::string const& boundary) const;
    void requireNewId(std::string const& contentId) const;
    void renewBoundary();

    SoapVersion m_version;
    bool m_mtom = false;
    bool m_nested = false;
    bool m_ownBoundary = false;
    std::string m_action;
    std::string m_charset;
    std::string m_boundary;
    std::string m_idSuffix;
    std::vector<OutgoingAttachment> m_parts;  // the envelope first
};

}  // namespace postwire
