#include <gtest/gtest.h>

#include "message/HTTPMessage.h"
#include "support/CaseFile.h"

namespace {

TEST(HTTPHeader, IsTakenApartAndWrittenAgain) {
    HTTPHeader header;
    for (TestCase const& c : loadCases("header_values.txt")) {
        QORByteBuffer buf(1, 1);
        header.reset();
        header.parse(c["text"].c_str());
        header.dump(buf);
        EXPECT_EQ(c["value"], header.getValue()) << c.where();
        EXPECT_EQ(c["dumped"], buf.str()) << c.where();
    }
}

TEST(HTTPHeader, TextsAreTrimmedOfWhiteSpaceAndOnePairOfQuotes) {
    for (TestCase const& c : loadCases("trimmed_texts.txt")) {
        std::string text = c["text"];
        HTTPMessage::trim(text);
        EXPECT_EQ(c["trimmed"], text) << c.where();
    }
}

}  // namespace
