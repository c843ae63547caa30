#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "foundation/ZULMemoryOutputStream.h"

#include "support/CaseFile.h"
#include "support/FragmentingStream.h"
#include "tools/Boundary.h"
#include "tools/HeaderFields.h"
#include "tools/HttpUrl.h"
#include "tools/LimitedInputStream.h"
#include "tools/PartFiles.h"
#include "tools/RequestReader.h"
#include "tools/TextEscapes.h"

namespace {

// What reading one request came to: "/uri 1.x keep|close body", the status it was refused with, the
// code of another error, or "end".
std::string readOne(RequestReader& reader) {
    Request request;
    try {
        if (!reader.waitForRequest()) return "end";
        reader.read(request);
    } catch (RequestRefused const& e) {
        return std::to_string(e.status);
    } catch (SizeLimitPassed const&) {
        return "413";
    } catch (QORException const& e) {
        return std::to_string(e.getCode());
    }
    std::string body;
    if (request.message.contentBytes())
        body.assign(request.message.contentBytes(),
                    static_cast<std::size_t>(request.message.contentSize()));
    return request.uri + (request.minorVersion == 0 ? " 1.0 " : " 1.1 ") +
           (request.keepAlive ? "keep " : "close ") + body;
}

// Each by name, for the table; a refused text gives nothing.
std::map<std::string, std::function<std::string(std::string const&)>> const kTextRules = {
    {"field",
     [](std::string const& text) {
         HeaderField const field = parseHeaderField(text);
         return field.name + "=" + field.value;
     }},
    {"url",
     [](std::string const& text) {
         HttpUrl const url = parseHttpUrl(text);
         return url.host + " " + std::to_string(url.port) + " " + url.target + " " + hostField(url);
     }},
    {"closes", [](std::string const& list) { return listHolds(list, "close") ? "yes" : "no"; }},
    {"boundary", [](std::string const& text) { return isPlainBoundary(text) ? "yes" : "no"; }},
    {"file", [](std::string const& text) { return safeFileName(text, "none"); }},
    {"xml", escapedForXml},
    {"json", escapedForJson},
    {"terminal", printable},
};

}  // namespace

TEST(ToolsRequestReader, KnowsVersionAndEndOfEachRequestHoweverItArrives) {
    for (TestCase const& c : loadCases("requests_in_a_row.txt")) {
        SCOPED_TRACE(c.where());
        forEachReadSize([&](int step) {
            FragmentingStream bytes(c["bytes"], step);
            ZULMemoryOutputStream out(64, 64);
            RequestReader reader(bytes, out, 100, false);
            std::string results;
            for (std::string last; last.find('/') == 0 || results.empty(); results += last + "\n")
                last = readOne(reader);
            EXPECT_EQ(results, c["results"]);
            EXPECT_EQ(out.bytes(), c["interim"]);
        });
    }
}

TEST(ToolsTexts, AreTakenApartEscapedOrRefused) {
    for (TestCase const& c : loadCases("tool_texts.txt")) {
        std::string gives;
        try {
            gives = kTextRules.at(c["rule"])(c["text"]);
        } catch (std::invalid_argument const&) {
        }
        EXPECT_EQ(gives, c["gives"]) << c.where();
    }
}

TEST(ToolsBoundary, IsFoundWhereverItLies) {
    std::string const delimiter = "--in-a-row";
    for (std::size_t const at : {0U, 1U, 65526U, 65527U, 65535U, 65536U, 131071U}) {
        std::string bytes(200000, '-');
        bytes.replace(at, delimiter.size(), delimiter);
        std::istringstream stream(bytes), other(bytes.substr(0, at + delimiter.size() - 1));
        EXPECT_TRUE(boundaryOccurs("in-a-row", stream)) << at;
        EXPECT_FALSE(boundaryOccurs("in-a-row", other)) << at;
    }
    EXPECT_TRUE(isPlainBoundary(makeBoundary()));
    EXPECT_NE(makeBoundary(), makeBoundary());
}

TEST(ToolsLimitedInputStream, EndsAtItsLimitOrRaises) {
    forEachReadSize([](int step) {
        for (int const limit : {0, 1, 4, 5, 6, 100}) {
            FragmentingStream bytes("12345", step);
            LimitedInputStream limited(bytes, limit);
            std::string got;
            bool passed = false;
            try {
                char block[3];
                for (int n; (n = limited.read(block, 3)) != -1;)
                    got.append(block, static_cast<std::size_t>(n));
            } catch (SizeLimitPassed const&) {
                passed = true;
            }
            EXPECT_EQ(got, std::string("12345").substr(0, static_cast<std::size_t>(limit)));
            EXPECT_EQ(passed, limit < 5);
        }
    });
}
