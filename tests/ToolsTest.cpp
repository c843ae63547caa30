#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

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

}  // namespace

TEST(ToolsRequestReader, KnowsVersionAndEndOfEachRequestHoweverItArrives) {
    for (TestCase const& c : loadCases("requests_in_a_row.txt")) {
        SCOPED_TRACE(c.where());
        forEachReadSize([&](int step) {
            FragmentingStream bytes(c["bytes"], step);
            ZULMemoryOutputStream out(64, 64);
            RequestReader reader(bytes, out, 100);
            std::string results;
            for (std::string last; last.find('/') == 0 || results.empty(); results += last + "\n")
                last = readOne(reader);
            EXPECT_EQ(results, c["results"]);
            EXPECT_EQ(out.bytes(), c["interim"]);
        });
    }
}

TEST(ToolsHeaderFields, AreTakenApartOrRefused) {
    struct {
        char const* text;
        char const* name;
        char const* value;
    } const cases[] = {
        {"A: b", "A", "b"},          {"a-1!:", "a-1!", ""},
        {"A:\t b: c ", "A", "b: c"}, {"A: \xe9\tb", "A", "\xe9\tb"},
        {"", nullptr, ""},           {"A", nullptr, ""},
        {": b", nullptr, ""},        {"A : b", nullptr, ""},
        {" A: b", nullptr, ""},      {"A\xe9: b", nullptr, ""},
        {"A: b\r\n", nullptr, ""},   {"A: b\rc", nullptr, ""},
        {"A: b\n c", nullptr, ""},   {"A: \x7f", nullptr, ""},
        {"\"A\": b", nullptr, ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        if (c.name) {
            HeaderField const field = parseHeaderField(c.text);
            EXPECT_EQ(field.name + "|" + field.value, std::string(c.name) + "|" + c.value);
        } else {
            EXPECT_THROW(parseHeaderField(c.text), std::invalid_argument);
        }
    }
    EXPECT_THROW(parseHeaderField(std::string("A: b\0c", 6)), std::invalid_argument);
    EXPECT_THROW(parseHeaderField(std::string("A\0: b", 5)), std::invalid_argument);
    for (char const* const list : {"close", "CLOSE", "a,close", "a, close ,b", ",close"})
        EXPECT_TRUE(listHolds(list, "close")) << list;
    for (char const* const list : {"", ",", "closed", "a close", "clos", "close;q=1"})
        EXPECT_FALSE(listHolds(list, "close")) << list;
}

TEST(ToolsHttpUrl, IsTakenApartOrRefused) {
    struct {
        char const* text;
        char const* parts;
    } const cases[] = {
        {"http://h", "h|80|/|h"},
        {"HTTP://h:8080/a/b?c#d", "h|8080|/a/b?c|h:8080"},
        {"http://h?c", "h|80|/?c|h"},
        {"http://1.2.3.4:80/#", "1.2.3.4|80|/|1.2.3.4"},
        {"", ""},
        {"http:/h", ""},
        {"https://h", ""},
        {"http://", ""},
        {"http:///a", ""},
        {"http://u@h/", ""},
        {"http://h:/", ""},
        {"http://h:0", ""},
        {"http://h:65536", ""},
        {"http://h:1x", ""},
        {"http://h:+1", ""},
        {"http://[::1]/", ""},
        {"http://h/ a", ""},
        {"http://h/\r\n", ""},
        {"http://h/\xe9", ""},
        {"http://a,b", ""},
        {"http://a%41/", ""},
    };
    for (auto const& c : cases) {
        SCOPED_TRACE(c.text);
        std::string parts;
        try {
            HttpUrl const url = parseHttpUrl(c.text);
            parts =
                url.host + "|" + std::to_string(url.port) + "|" + url.target + "|" + hostField(url);
        } catch (std::invalid_argument const&) {
        }
        EXPECT_EQ(parts, c.parts);
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
    EXPECT_TRUE(isPlainBoundary(std::string(70, 'x')));
    for (std::string const bad : {"", "a b", "a;b", "a=b", "a\"b", "a\r\nb", "a:b"})
        EXPECT_FALSE(isPlainBoundary(bad)) << bad;
    EXPECT_FALSE(isPlainBoundary(std::string(71, 'x')));
}

TEST(ToolsPartFiles, NamesStayInTheFolderAndAreNoOption) {
    struct {
        char const* text;
        char const* name;
    } const cases[] = {
        {"<a.b@c>", "a.b@c"},
        {"", "none"},
        {".", "none"},
        {"..", "none"},
        {"<..>", "none"},
        {"../..", "none"},
        {"a/", "none"},
        {"/etc/passwd", "passwd"},
        {"..\\..\\x.y", "x.y"},
        {".hidden", "_hidden"},
        {"-rf", "_rf"},
        {"a b\n\t\"'$`|;&*?", "a_b___________"},
        {"\xc3\xa9", "__"},
        {"a%2Fb", "a_2Fb"},
        {"http://h/p?q=/r", "r"},
        {"< . >", "none"},
    };
    for (auto const& c : cases) EXPECT_EQ(safeFileName(c.text, "none"), c.name) << c.text;
    EXPECT_EQ(safeFileName(std::string("a\0/b\0c", 6), "none"), "b_c");
    EXPECT_EQ(safeFileName(std::string(5000, 'x'), "none").size(), 100U);
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

TEST(ToolsTextEscapes, LeaveNothingThatMeansMore) {
    std::string const text = unescaped("a<b>&\"'\\\\\\0\\n\\x1b\\x7f\\xe9");
    EXPECT_EQ(escapedForXml(text), "a&lt;b&gt;&amp;&quot;'\\????&#233;");
    EXPECT_EQ(escapedForJson(text), "a<b>&\\\"'\\\\\\u0000\\u000a\\u001b\\u007f\\u00e9");
    EXPECT_EQ(printable(text), "a<b>&\"'\\????\xe9");
}
