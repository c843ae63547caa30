#include <gtest/gtest.h>

#include "message/HTTPMessage.h"
#include "support/AllocationFaults.h"
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

TEST(HTTPHeader, TakesMemoryForItsMembersAlone) {
    struct {
        char const* text;
        int fresh, reused;
    } const kTexts[] = {{"text/xml; charset=utf-8", 1, 1},
                        {"keep-alive", 0, 0},
                        {"of more than 15 letters ", 1, 0},
                        {"a; b=1; b=2", 1, 1}};
    HTTPHeader reused("a value that makes room for the later ones");
    for (auto const& c : kTexts) {
        reused.reset();
        EXPECT_EQ(c.fresh, allocationsOf([&] { HTTPHeader().parse(c.text); })) << c.text;
        EXPECT_EQ(c.reused, allocationsOf([&] { reused.parse(c.text); })) << c.text;
    }
}

}  // namespace
