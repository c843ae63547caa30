#include "service/Attachments.h"

#include <algorithm>
#include <utility>

#include "foundation/ZULMemoryInputStream.h"

#include "foundation/AsciiText.h"
#include "service/PercentCoding.h"
#include "service/ServiceError.h"
#include "service/UrlReference.h"

namespace postwire {

namespace {

std::string_view withoutBrackets(std::string_view id) {
    id = withoutSpaces(id);
    bool const has = id.size() > 1 && id.front() == '<' && id.back() == '>';
    return has ? id.substr(1, id.size() - 2) : id;
}

std::string_view idOf(MessageView const& part) {
    return withoutBrackets(part.find("Content-ID").value_or(""));
}

// RFC 2387 section 3.2.
MessageView rootOf(MessageView const& message) {
    MessageView::Parts const parts = message.parts();
    if (parts.empty()) return message;
    MediaType const type = message.type();  // whose text the parameter is
    if (auto const start = type.parameter("start"))
        for (MessageView part : parts)
            if (idOf(part) == withoutBrackets(*start)) return part;
    return *parts.begin();
}

// Lines of a URL that was folded are joined without blanks, RFC 2557 section 4.4.
std::string locationOf(MessageView const& part) {
    std::string url;
    for (char const c : part.find("Content-Location").value_or(""))
        if (!isAsciiSpace(c)) url += c;
    return url;
}

// The stream that the body of a part is read from.
class PartStream : public ZULInputStream {
public:
    PartStream(std::string_view body, TransferCoding coding, Strictness strictness)
        : m_memory(body.empty() ? "" : body.data(), static_cast<int>(body.size())),
          m_decoder(m_memory, coding, strictness) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override { return m_decoder.read(bytes, n); }

private:
    ZULMemoryInputStream m_memory;
    DecodingInputStream m_decoder;
};

TransferCoding requiredCoding(Attachment const& part, Strictness strictness) {
    auto const coding = part.coding();
    if (!coding && strictness == Strictness::strict)
        throw ServiceError(ServiceError::Code::malformed, "a transfer coding that no one knows");
    return coding.value_or(TransferCoding::binary);
}

std::string unquoted(std::string_view text) {
    bool const is = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return std::string(is ? text.substr(1, text.size() - 2) : text);
}

SoapVersion versionOf(std::string_view type) {
    MediaType const parsed(type);
    if (parsed.is("text/xml")) return SoapVersion::soap11;
    if (parsed.is("application/soap+xml")) return SoapVersion::soap12;
    return SoapVersion::none;
}

}  // namespace

// Attachment

std::string_view Attachment::contentId() const { return idOf(m_view); }

std::string Attachment::fileName() const {
    MediaType const disposition(m_view.find("Content-Disposition").value_or(""));
    MediaType const type = m_view.type();
    auto name = disposition.parameter("filename");
    if (!name) name = type.parameter("name");
    if (!name) return {};
    return std::string(name->substr(name->find_last_of("/\\") + 1));
}

std::optional<TransferCoding> Attachment::coding() const {
    auto const name = m_view.find("Content-Transfer-Encoding");
    return name ? transferCodingOf(*name) : TransferCoding::binary;
}

std::string Attachment::decoded(Strictness strictness) const {
    return postwire::decoded(body(), requiredCoding(*this, strictness), strictness);
}

std::unique_ptr<ZULInputStream> Attachment::open(Strictness strictness) const {
    return std::make_unique<PartStream>(body(), requiredCoding(*this, strictness), strictness);
}

void Attachment::write(ZULOutputStream& out, Strictness strictness) const {
    char block[8192];
    auto const in = open(strictness);
    for (int n; (n = in->read(block, sizeof block)) > 0;) out.write(block, n);
}

// Attachments

Attachments::Attachments(MessageView message, Depth depth)
    : m_message(std::move(message)), m_base(baseOf(m_message)), m_root(rootOf(m_message), {}) {
    auto const attachment = [&](MessageView const& part) {
        std::string const location = locationOf(part);
        std::string const absolute = location.empty() ? "" : resolvedUrl(m_base, location);
        return Attachment(part, absolute);
    };
    m_root = attachment(m_root.view());
    MessageView::Parts const parts =
        depth == Depth::nested ? m_message.allParts() : m_message.parts();
    for (MessageView const part : parts)
        if (part != m_root.view() && part.parts().empty()) m_all.push_back(attachment(part));
}

Attachments::Attachments(HTTPMessage const& message, Depth depth)
    : Attachments(MessageView(message), depth) {}

Attachments::Attachments(Request& request, Depth depth)
    : Attachments(MessageView(request), depth) {}

Attachments::Attachments(Answer const& answer, Depth depth)
    : Attachments(MessageView(answer), depth) {}

// The root's own location, else that of the message around it, RFC 2557 section 5; else one that no
// other message has.
std::string Attachments::baseOf(MessageView const& message) const {
    std::string const around = resolvedUrl("thismessage:/", locationOf(message));
    return resolvedUrl(around, locationOf(rootOf(message)));
}

SoapVersion Attachments::soapVersion() const {
    MediaType const type = m_root.type();
    if (!type.is("application/xop+xml"))
        return versionOf(m_root.view().find("Content-Type").value_or(""));
    SoapVersion const within = versionOf(type.parameter("type").value_or(""));
    if (within != SoapVersion::none) return within;
    return versionOf(m_message.type().parameter("start-info").value_or(""));
}

bool Attachments::isMtom() const { return m_root.type().is("application/xop+xml"); }

std::string Attachments::action() const {
    MediaType const outer = m_message.type(), inner = m_root.type();
    std::string_view const field = m_message.find("SOAPAction").value_or("");
    if (!field.empty() && soapVersion() != SoapVersion::soap12) return unquoted(field);
    for (MediaType const& type : {outer, inner, MediaType(inner.parameter("type").value_or("")),
                                  MediaType(outer.parameter("start-info").value_or(""))})
        if (auto const action = type.parameter("action")) return std::string(*action);
    return {};
}

FoundAttachment Attachments::find(std::function<bool(Attachment const&)> const& fits) const {
    FoundAttachment found;
    auto const look = [&](Attachment const& part) {
        if (!fits(part)) return;
        if (found.count++ == 0) found.first = &part;
    };
    std::for_each(m_all.begin(), m_all.end(), look);
    return found;
}

// Writers that encode the Content-ID itself, too, are met with the text as it stands.
FoundAttachment Attachments::byContentId(std::string_view id) const {
    bool const isUrl = beginsInAnyCase(id, "cid:") && id.size() >= 4;
    std::string_view const written = isUrl ? id.substr(4) : withoutBrackets(id);
    std::string const plain = isUrl ? percentDecoded(written) : std::string(written);
    auto const is = [](std::string_view wanted) {
        return [wanted](Attachment const& part) {
            return !wanted.empty() && part.contentId() == wanted;
        };
    };
    FoundAttachment const found = find(is(plain));
    return found ? found : find(is(written));
}

FoundAttachment Attachments::byLocation(std::string_view url) const {
    std::string const wanted = resolvedUrl(m_base, url);
    return find([&](Attachment const& part) { return part.location() == wanted; });
}

FoundAttachment Attachments::byFileName(std::string_view name) const {
    return find([&](Attachment const& part) { return !name.empty() && part.fileName() == name; });
}

FoundAttachment Attachments::byHref(std::string_view href) const {
    href = withoutSpaces(href);
    bool const isCid = beginsInAnyCase(href, "cid:") && href.size() >= 4;
    return isCid ? byContentId(href) : byLocation(href);
}

}  // namespace postwire
