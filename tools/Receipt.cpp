#include "tools/Receipt.h"

#include "tools/MessageSummary.h"
#include "tools/RequestReader.h"
#include "tools/TextEscapes.h"

std::string makeReceipt(Request& request) {
    std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<receipt>\n  <uri>";
    xml.append(escapedForXml(request.uri)).append("</uri>\n");
    appendXml(xml, summarise(request.message));
    return xml.append("</receipt>\n");
}
