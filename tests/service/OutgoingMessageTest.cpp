#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "foundation/ZULMemoryOutputStream.h"

#include "service/OutgoingMessage.h"
#include "service/ServiceError.h"
#include "support/CaseFile.h"

namespace {

using postwire::ByteSource;
using postwire::OutgoingMessage;
using postwire::ServiceError;
using postwire::SoapVersion;
using postwire::TransferCoding;

std::string written(OutgoingMessage const& message) {
    ZULMemoryOutputStream out(256, 256);
    message.write(out);
    return {out.bytes(), static_cast<std::size_t>(out.length())};
}

OutgoingMessage messageOf(TestCase const& c) {
    SoapVersion const version = c["soap"] == "1.2" ? SoapVersion::soap12 : SoapVersion::soap11;
    OutgoingMessage message = c.has("type") ? OutgoingMessage(c["type"], c["envelope"])
                                            : OutgoingMessage(version, c["envelope"]);
    message.setAction(c["action"]);
    message.setMtom(c.has("mtom"));
    message.setNested(c.has("nested"));
    message.setStart("root");
    message.setBoundary("B");
    for (std::string const n : {"", "2"}) {
        if (!c.has("body" + n)) continue;
        postwire::OutgoingAttachment attachment{c["body" + n]};
        attachment.contentId = c["id" + n];
        attachment.location = c["location" + n];
        attachment.fileName = c["file" + n];
        attachment.coding = postwire::transferCodingOf(c["coding" + n]).value_or(attachment.coding);
        message.attach(attachment);
    }
    return message;
}

TEST(OutgoingMessage, HeadersAndBodyAreExactlyThese) {
    for (TestCase const& c : loadCases("outgoing_messages.txt")) {
        SCOPED_TRACE(c.where());
        OutgoingMessage const message = messageOf(c);
        EXPECT_EQ(c["content-type"], message.contentType());
        auto const fields = message.requestFields();
        EXPECT_EQ(c["soapaction"], fields.empty() ? "" : fields.front().second);
        EXPECT_EQ(c["wire"], written(message));
        EXPECT_EQ(c["wire"].size(), message.size());
    }
}

TEST(OutgoingMessage, SourcesOfNoSizeAreWrittenOnceAndOthersAreHeldToTheirs) {
    std::istringstream in("0123456789");
    OutgoingMessage message(SoapVersion::soap11, "<a/>");
    message.attach({ByteSource::stream(in)});
    EXPECT_FALSE(message.size());
    EXPECT_FALSE(message.isRepeatable());
    EXPECT_NE(std::string::npos, written(message).find("\r\n\r\n0123456789\r\n--"));
    for (int const said : {3, 11}) {
        std::istringstream again("0123456789");
        OutgoingMessage wrong("a/b", ByteSource::stream(again, said));
        EXPECT_THROW(written(wrong), ServiceError);
    }
    EXPECT_THROW(ByteSource::file("/nonexistent"), ServiceError);
}

}  // namespace
