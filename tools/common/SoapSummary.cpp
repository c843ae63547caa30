#include "tools/common/SoapSummary.h"

#include "service/ServiceError.h"
#include "tools/common/TextEscapes.h"

namespace {

using postwire::Attachment;
using postwire::Attachments;
using postwire::SoapVersion;

std::string versionOf(Attachments const& came) {
    if (came.soapVersion() == SoapVersion::none) return {};
    std::string const version = came.soapVersion() == SoapVersion::soap11 ? "1.1" : "1.2";
    return came.isMtom() ? version + " MTOM" : version;
}

// A body that is not in the coding that it names has none.
std::string decodedSize(Attachment const& part) try {
    return std::to_string(part.decoded().size());
} catch (postwire::ServiceError const&) {
    return "malformed";
}

void appendAttribute(std::string& to, char const* name, std::string_view value) {
    if (!value.empty())
        to.append(" ").append(name).append("=\"").append(escapedForXml(value)).append("\"");
}

}  // namespace

void appendSoapXml(std::string& to, Attachments const& came) {
    std::string const version = versionOf(came);
    if (version.empty()) return;
    to += "  <soap";
    appendAttribute(to, "version", version);
    appendAttribute(to, "action", came.action());
    appendAttribute(to, "root", came.root().contentId());
    appendAttribute(to, "size", decodedSize(came.root()));
    to += ">\n";
    for (Attachment const& part : came.all()) {
        to += "    <attachment";
        appendAttribute(to, "id", part.contentId());
        appendAttribute(to, "name", part.fileName());
        appendAttribute(to, "size", decodedSize(part));
        to += "/>\n";
    }
    to += "  </soap>\n";
}

void appendSoapLines(std::string& to, Attachments const& came) {
    std::string const version = versionOf(came);
    if (version.empty() || came.all().empty()) return;
    to += "SOAP " + version + ", root " + printable(came.root().contentId()) + ", " +
          decodedSize(came.root()) + " bytes";
    if (!came.action().empty()) to += ", action " + printable(came.action());
    to += "\n";
    for (Attachment const& part : came.all())
        to += "  " + printable(part.contentId()) + "  " + printable(part.fileName()) + "  " +
              decodedSize(part) + " bytes decoded\n";
}
