#include "tools/serve/Receipt.h"

#include "tools/common/MessageSummary.h"
#include "tools/common/SoapSummary.h"
#include "tools/common/TextEscapes.h"

std::string makeReceipt(postwire::Request& request) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<receipt>\n  <uri>";
    xml.append(escapedForXml(request.uri())).append("</uri>\n");
    appendSoapXml(xml, postwire::Attachments(request));
    appendXml(xml, summarise(request.message()));
    return xml.append("</receipt>\n");
}
