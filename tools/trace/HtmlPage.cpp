#include "tools/trace/HtmlPage.h"

#include <algorithm>
#include <string_view>

#include <openssl/evp.h>

#include "foundation/AsciiText.h"
#include "tools/common/TextEscapes.h"
#include "tools/trace/BodyText.h"
#include "tools/trace/Jobs.h"

namespace {

constexpr std::size_t kShownText = 16384, kShownHex = 512, kShownField = 2048;
constexpr std::size_t kShownFields = 100, kShownParts = 50, kShownHead = 16384;

std::string base64(std::string_view bytes) {
    std::string text;
    appendBase64(text, bytes);
    return text;
}

std::string sha256InBase64(std::string_view text) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_Digest(text.data(), text.size(), digest, &size, EVP_sha256(), nullptr);
    return base64({reinterpret_cast<char const*>(digest), size});
}

std::string element(std::string const& name, std::string const& kind, std::string const& markup) {
    return "<" + name + " class=\"" + kind + "\">" + markup + "</" + name + ">";
}

std::string shortened(std::string_view text, std::size_t most) {
    return escapedForXml(text.substr(0, most)) + (text.size() > most ? " ..." : "");
}

// Takes the next line off a head, without its end.
std::string_view takeLine(std::string_view& head) {
    std::string_view const line = head.substr(0, head.find('\n'));
    head.remove_prefix(std::min(head.size(), line.size() + 1));
    return withoutSpaces(line);
}

bool isFraming(std::string_view name) {
    static constexpr std::string_view kNames[] = {"content-length", "transfer-encoding",
                                                  "content-type"};
    return std::any_of(std::begin(kNames), std::end(kNames),
                       [name](std::string_view other) { return equalsInAnyCase(name, other); });
}

std::string row(std::string_view name, std::string_view value) {
    return std::string(isFraming(name) ? "<tr class=\"framing\"><th>" : "<tr><th>") +
           shortened(name, kShownField) + "</th><td>" + shortened(value, kShownField) +
           "</td></tr>\n";
}

std::string table(std::string const& rows, std::size_t count) {
    std::string markup = rows.empty() ? "" : "<table>" + rows + "</table>\n";
    if (count > kShownFields)
        markup += element("p", "rest", std::to_string(count - kShownFields) + " fields more");
    return markup;
}

std::string headMarkup(std::string_view head) {
    std::string markup = element("p", "start", shortened(takeLine(head), kShownField)) + "\n";
    std::string rows;
    std::size_t count = 0;
    while (!head.empty()) {
        std::string_view const line = takeLine(head);
        std::size_t const colon = std::min(line.find(':'), line.size());
        if (count++ < kShownFields)
            rows += row(line.substr(0, colon),
                        withoutBlanks(line.substr(std::min(colon + 1, line.size()))));
    }
    return markup + table(rows, count);
}

// Writes one message; its parts are told apart by their place.
class MessageMarkup {
public:
    MessageMarkup(std::string const& trace, std::uint64_t number)
        : m_command("postwire-trace body '" + trace + "' " + std::to_string(number)) {}

    std::string body(TracedPart const& part, std::string const& place) {
        std::string markup;
        if (part.parts.empty() && part.moreParts == 0) return content(part, place);
        std::size_t number = 0;
        for (TracedPart const& inner : part.parts) {
            std::string const here = (place.empty() ? "" : place + ".") + std::to_string(++number);
            if (m_parts++ >= kShownParts) break;
            markup += partMarkup(inner, here);
        }
        std::uint64_t const more =
            part.moreParts + (part.parts.size() - std::min(number, part.parts.size()));
        if (more > 0) markup += element("p", "rest", std::to_string(more) + " parts more") + "\n";
        return markup;
    }

private:
    std::string partMarkup(TracedPart const& part, std::string const& place) {
        std::string rows;
        for (auto const& [name, value] : part.fields) rows += row(name, value);
        std::string const id = part.field("content-id");
        std::string markup = "<details open><summary>part " + place + ": " +
                             shortened(part.field("content-type"), 100);
        if (!id.empty()) markup += ", " + shortened(id, 100);
        if (part.parts.empty()) markup += ", " + bytesInWords(part.size);
        if (part.broken) markup += " " + element("span", "fault", "reading stopped here");
        return markup + "</summary><div class=\"inside\">" + table(rows, 0) + body(part, place) +
               "</div></details>\n";
    }

    std::string content(TracedPart const& part, std::string const& place) {
        if (part.size == 0) return {};
        bool const whole = part.excerpt.size() == part.size;
        std::string_view const picture = pictureType(part.excerpt);
        if (whole && !picture.empty())
            return "<img alt=\"picture of " + bytesInWords(part.size) +
                   "\" src=\"data:" + std::string(picture) + ";base64," + base64(part.excerpt) +
                   "\">\n";
        BodyKind const kind = kindOf(part.excerpt);
        std::size_t const most = kind == BodyKind::Hex ? kShownHex : kShownText;
        std::string_view const shown = std::string_view(part.excerpt).substr(0, most);
        std::string markup = kind == BodyKind::Hex   ? markupOfHex(shown)
                             : kind == BodyKind::Xml ? markupOfXml(shown)
                                                     : markupOfText(shown);
        markup = "<pre>" + markup + "</pre>\n";
        if (shown.size() == part.size) return markup;
        std::string const command = m_command + (place.empty() ? "" : " " + place);
        return markup +
               element("p", "rest",
                       "The first " + bytesInWords(shown.size()) + " of " +
                           bytesInWords(part.size) + "; all: <code>" + escapedForXml(command) +
                           "</code>") +
               "\n";
    }

    std::string m_command;
    std::size_t m_parts = 0;
};

std::string facts(PageMessage const& page) {
    Span const& span = page.message.span;
    std::string text = bytesInWords(span.bytes) + ", " + std::to_string(span.calls) +
                       (page.message.read ? " receive" : " send") + (span.calls == 1 ? "" : "s");
    if (span.begin != kNoTime && span.calls > 1) text += " in " + seconds(span.end - span.begin);
    if (span.longestGap != kNoTime) text += ", longest gap " + seconds(span.longestGap);
    return text;
}

}  // namespace

std::string markupOf(PageMessage const& page, std::string const& trace, Detail detail, bool open) {
    TracedMessage const& message = page.message;
    std::string const number = std::to_string(message.number);
    std::string_view head = std::string_view(message.head).substr(0, kShownHead);
    std::string_view rest = head;
    std::string time;
    if (page.at != kNoTime) time = seconds(page.at) + "<br>+" + seconds(page.gap);
    bool const bad = !message.error.empty();
    std::string markup =
        "<li class=\"message " + std::string(message.request ? "request" : "response") +
        "\" id=\"m" + number + "\"><details" + (open ? " open" : "") + "><summary>" +
        element("span", "time", time) + "<span class=\"lane\">" +
        element("span", "arrow", number + ": " + shortened(takeLine(rest), 200)) + "</span>" +
        element("span", "facts", facts(page)) + "</summary>\n" + "<div class=\"inside\">";
    if (bad) markup += element("p", "fault", escapedForXml(message.error)) + "\n";
    if (detail != Detail::Row) markup += headMarkup(head);
    if (detail == Detail::Whole)
        markup += MessageMarkup(trace, message.number).body(message.body, "");
    if (detail != Detail::Whole)
        markup += element(
            "p", "rest",
            "The page has no room for more; see <code>" +
                escapedForXml("postwire-trace show '" + trace + "' --count 1 --from " + number) +
                "</code>");
    return markup + "</div></details></li>\n";
}

std::string pageOf(std::string const& title, std::string const& summary, std::string const& rungs) {
    std::string page;
    std::string_view left = kPageMarkup;
    std::pair<std::string_view, std::string> const holes[] = {
        {"{STYLE-HASH}", sha256InBase64(kPageStyle)},
        {"{SCRIPT-HASH}", sha256InBase64(kPageScript)},
        {"{TITLE}", escapedForXml(title)},
        {"{STYLE}", kPageStyle},
        {"{TITLE}", escapedForXml(title)},
        {"{SUMMARY}", summary},
        {"{MESSAGES}", rungs},
        {"{SCRIPT}", kPageScript}};
    for (auto const& [name, markup] : holes) {  // in the order in which they stand
        std::size_t const at = left.find(name);
        page.append(left.substr(0, at)).append(markup);
        left.remove_prefix(at + name.size());
    }
    return page.append(left);
}

std::string bytesInWords(std::uint64_t bytes) {
    std::string text = std::to_string(bytes);
    for (std::size_t at = text.size(); at > 3;) text.insert(at -= 3, 1, ',');
    return text + (bytes == 1 ? " byte" : " bytes");
}
