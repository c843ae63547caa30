#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULOutputStream.h"

#include "service/MediaType.h"
#include "service/MessageView.h"
#include "service/SoapVersion.h"
#include "service/TransferCoding.h"

namespace postwire {

// One part of a message that was received.
//
// Ownership: as MessageView.
// Raises: ServiceError::Code::malformed where a body is not in its coding, or in one that RFC 2045
//   does not know, and the call says strict; leniently such a coding counts as binary.
class POSTWIRE_EXPORT Attachment {
public:
    [[nodiscard]] MessageView const& view() const { return m_view; }
    [[nodiscard]] MediaType type() const { return m_view.type(); }

    // Without angle brackets; empty where there is none.
    [[nodiscard]] std::string_view contentId() const;

    // Content-Location, made absolute where the message says how, RFC 2557; empty where there is
    // none.
    [[nodiscard]] std::string const& location() const { return m_location; }

    // Of Content-Disposition, else the name of Content-Type; in UTF-8, without what makes it a
    // path: nothing up to the last slash or backslash.
    [[nodiscard]] std::string fileName() const;

    // binary where it names none, none where RFC 2045 does not know it.
    [[nodiscard]] std::optional<TransferCoding> coding() const;

    // As it came, and what that stands for: at once, or piece by piece in constant memory.
    [[nodiscard]] std::string_view body() const { return m_view.body(); }
    [[nodiscard]] std::string decoded(Strictness strictness = Strictness::strict) const;
    [[nodiscard]] std::unique_ptr<ZULInputStream> open(
        Strictness strictness = Strictness::strict) const;
    void write(ZULOutputStream& out, Strictness strictness = Strictness::strict) const;

private:
    friend class Attachments;
    Attachment(MessageView view, std::string location)
        : m_view(std::move(view)), m_location(std::move(location)) {}

    MessageView m_view;
    std::string m_location;
};

// What was looked for: the first that fits, and how many do.
struct POSTWIRE_EXPORT FoundAttachment {
    Attachment const* first = nullptr;
    std::size_t count = 0;

    explicit operator bool() const { return first != nullptr; }
    Attachment const& operator*() const { return *first; }
    Attachment const* operator->() const { return first; }
};

// A message in SOAP, or any other in parts, as its reader thinks of it: an envelope, and what came
// along.
//
// Ownership: borrows the tree, as MessageView; what it finds is its own.
// Rule: the root is the part that `start` names, else the first, RFC 2387 section 3.2; of a message
//   without parts the message. Parts that have parts are not attachments themselves.
class POSTWIRE_EXPORT Attachments {
public:
    // Whether parts of parts are looked at too, in the order in which they stand.
    enum class Depth { nested, topLevel };

    explicit Attachments(MessageView message, Depth depth = Depth::nested);
    explicit Attachments(HTTPMessage const& message, Depth depth = Depth::nested);
    explicit Attachments(Request& request, Depth depth = Depth::nested);
    explicit Attachments(Answer const& answer, Depth depth = Depth::nested);
    Attachments(Answer&&, Depth = Depth::nested) = delete;

    [[nodiscard]] Attachment const& root() const { return m_root; }

    // Of the envelope: by the root's type, of XOP by the type within.
    [[nodiscard]] SoapVersion soapVersion() const;
    [[nodiscard]] bool isMtom() const;

    // SOAPAction without its quotes, in SOAP 1.2 `action` of the type; empty where there is none.
    [[nodiscard]] std::string action() const;

    // All but the root.
    [[nodiscard]] std::vector<Attachment> const& all() const { return m_all; }

    // With angle brackets or without, or as "cid:" URL, RFC 2392.
    [[nodiscard]] FoundAttachment byContentId(std::string_view id) const;
    // A relative one as the parts' own are made absolute.
    [[nodiscard]] FoundAttachment byLocation(std::string_view url) const;
    [[nodiscard]] FoundAttachment byFileName(std::string_view name) const;
    // Whatever an envelope refers to by, as xop:Include does: "cid:" or another URL.
    [[nodiscard]] FoundAttachment byHref(std::string_view href) const;

private:
    [[nodiscard]] std::string baseOf(MessageView const& message) const;
    [[nodiscard]] FoundAttachment find(std::function<bool(Attachment const&)> const& fits) const;

    MessageView m_message;
    std::string m_base;  // of relative locations
    Attachment m_root;
    std::vector<Attachment> m_all;
};

}  // namespace postwire
