#include "tools/common/MessageSummary.h"

#include "foundation/QORByteBuffer.h"

#include "message/HTTPMessage.h"
#include "tools/common/Sha256.h"
#include "tools/common/TextEscapes.h"

namespace {

std::string indentation(int depth) { return std::string(static_cast<std::size_t>(depth) * 2, ' '); }

void appendAttribute(std::string& to, char const* name, std::string const& value) {
    if (value.empty()) return;
    to.append(" ").append(name).append("=\"").append(escapedForXml(value)).append("\"");
}

void appendMember(std::string& to, char const* name, std::string const& value) {
    if (value.empty()) return;
    to.append("\"").append(name).append("\":\"").append(escapedForJson(value)).append("\",");
}

}  // namespace

MessageSummary summarise(HTTPMessage& message) {
    MessageSummary summary;
    summary.type = headerText(message, "Content-Type");
    summary.contentId = headerText(message, "Content-ID");
    summary.location = headerText(message, "Content-Location");
    for (int i = 0; i < message.num_parts(); ++i)
        summary.parts.push_back(summarise(*message.getPart(i)));
    if (summary.parts.empty()) {
        summary.size = message.contentSize();
        summary.sha256 = sha256(message.contentBytes(), static_cast<std::size_t>(summary.size));
    }
    return summary;
}

std::string headerText(HTTPMessage& message, char const* name) {
    HTTPHeader* const header = message.getHeader(name);
    if (!header) return {};
    QORByteBuffer text(128, 128);
    header->dump(text);
    return {text.str(), text.pcount()};
}

void appendXml(std::string& to, MessageSummary const& summary, int depth) {
    char const* const element = depth == 0 ? "message" : "part";
    to.append(indentation(depth + 1)).append("<").append(element);
    appendAttribute(to, "type", summary.type);
    appendAttribute(to, "content-id", summary.contentId);
    appendAttribute(to, "content-location", summary.location);
    if (summary.parts.empty()) {
        appendAttribute(to, "size", std::to_string(summary.size));
        appendAttribute(to, "sha256", summary.sha256);
        to.append("/>\n");
        return;
    }
    to.append(">\n");
    for (MessageSummary const& part : summary.parts) appendXml(to, part, depth + 1);
    to.append(indentation(depth + 1)).append("</").append(element).append(">\n");
}

void appendJson(std::string& to, MessageSummary const& summary) {
    to += '{';
    appendMember(to, "type", summary.type);
    appendMember(to, "contentId", summary.contentId);
    appendMember(to, "contentLocation", summary.location);
    if (summary.parts.empty()) {
        appendMember(to, "sha256", summary.sha256);
        to.append("\"size\":").append(std::to_string(summary.size));
    } else {
        to.append("\"parts\":[");
        for (MessageSummary const& part : summary.parts) {
            if (&part != &summary.parts.front()) to += ',';
            appendJson(to, part);
        }
        to += ']';
    }
    to += '}';
}

void appendTree(std::string& to, MessageSummary const& summary, int depth) {
    to.append(indentation(depth));
    to.append(summary.type.empty() ? "(no type)" : printable(summary.type));
    for (std::string const& name : {summary.contentId, summary.location})
        if (!name.empty()) to.append("  ").append(printable(name));
    if (summary.parts.empty()) {
        to.append("  ").append(std::to_string(summary.size)).append(" bytes  sha256 ");
        to.append(summary.sha256).append("\n");
        return;
    }
    to.append("  ").append(std::to_string(summary.parts.size()));
    to.append(summary.parts.size() == 1 ? " part\n" : " parts\n");
    for (MessageSummary const& part : summary.parts) appendTree(to, part, depth + 1);
}
