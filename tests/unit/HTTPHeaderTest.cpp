#include <gtest/gtest.h>

#include "message/HTTPMessage.h"
#include "support/RowTest.h"

namespace {

TEST_ROWS(HTTPHeader, IsTakenApartAndWrittenAgain, "header_values.txt") {
    HTTPHeader header("old; a=b");
    QORByteBuffer buf(1, 1);
    header.reset();
    header.parse(c["text"].c_str());
    header.dump(buf);
    EXPECT_EQ(c["value"], header.getValue());
    EXPECT_EQ(c["dumped"], buf.str());
}

TEST_ROWS(HTTPHeader, TextsAreTrimmedOfWhiteSpaceAndOnePairOfQuotes, "trimmed_texts.txt") {
    std::string text = c["text"];
    HTTPMessage::trim(text);
    EXPECT_EQ(c["trimmed"], text);
}

}  // namespace
