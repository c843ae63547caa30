#include <cstring>
#include <fstream>
#include <functional>
#include <set>
#include <utility>

#include <gtest/gtest.h>

#include "sender/HTTPMessageSender.h"
#include "sender/HttpOutputStream.h"
#include "support/AllocationFaults.h"
#include "support/CaseFile.h"
#include "support/Raised.h"
#include "support/RecordingOutputStream.h"
#include "support/WriterCalls.h"

namespace {

using Lines = std::vector<std::string>;

bool isCall(std::string const& line) { return std::strchr("=>!", line[0]) == nullptr; }

// A title, the call that makes a node, the other calls, and behind each what it made.
std::vector<Lines> transcripts() {
    std::vector<Lines> cases;
    std::string title;
    std::ifstream file(POSTWIRE_TEST_DATA "/writer_transcripts.txt");
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '=') title = line;
        if (line.compare(0, 4, "one:") == 0 || line.compare(0, 6, "multi:") == 0)
            cases.push_back({title});
        if (!line.empty() && std::strchr("=#", line[0]) == nullptr)
            cases.back().push_back(line[0] == '>' ? unescaped(line) : line);
    }
    return cases;
}

class HTTPMessageSender : public ::testing::Test {
protected:
    void SetUp() override { std::strcpy(host_name, "node1"); }
};

// Makes the calls of a case from the nth line on, until the stream fails.
void makeCalls(Lines const& lines, std::size_t from, WriterCalls& calls) {
    for (std::size_t i = from; i < lines.size(); ++i)
        if (isCall(lines[i]) && raisedCode([&] { calls.make(lines[i]); }) == kStreamFailure) return;
}

struct Nowhere : ZULOutputStream {
    void write(char const*, int) override {}
};

// Counts the bytes that come from the caller's own memory.
struct OriginCounter : ZULOutputStream {
    explicit OriginCounter(std::string const& memory) : caller(memory) {}
    void write(char const* data, int length) override {
        bool const own = data >= caller.data() && data < caller.data() + caller.size();
        (own ? original : other) += static_cast<std::size_t>(length);
    }
    std::string const& caller;
    std::size_t original = 0, other = 0;
};

struct Stripped : MultipartHttpMsg {
    explicit Stripped(ZULOutputStream& os) : MultipartHttpMsg(os, 0, "b1") {
        std::unique_ptr<HttpOutputStream>(std::exchange(p_os_content, nullptr)).reset();
        p_os_upstream = nullptr;
    }
};

struct WithoutEncoder : HttpChunkedOutputStream {
    explicit WithoutEncoder(HttpMsgNode* node) : HttpChunkedOutputStream(node, 9) {
        std::unique_ptr<ZULChunkedOutputStream>(std::exchange(m_os_chunked, nullptr)).reset();
    }
};

}  // namespace

TEST_F(HTTPMessageSender, MakesTheWritesOfTheTranscripts) {
    for (Lines const& expected : transcripts()) {
        RecordingOutputStream os;
        WriterCalls calls(os);
        Lines actual{expected[0]};
        for (std::string const& line : expected) {
            if (!isCall(line)) continue;
            actual.push_back(line);
            std::string const error = raisedText([&] { calls.make(line); });
            for (std::string const& bytes : os.writes) actual.push_back("> " + bytes);
            os.writes.clear();
            if (!error.empty()) actual.push_back("! " + error);
        }
        EXPECT_EQ(expected, actual);
        EXPECT_EQ(0, os.flushes + os.closes) << expected[0];
    }
}

TEST_F(HTTPMessageSender, BeginsAnewAfterAFailureOfEachWrite) {
    for (Lines const& lines : transcripts()) {
        if (lines.size() > 2 && lines[2][0] == '!') continue;  // no node at all
        RecordingOutputStream whole;
        WriterCalls calls(whole);
        makeCalls({lines[1], "restart:"}, 0, calls);
        makeCalls(lines, 2, calls);
        for (int nth = 1; nth <= static_cast<int>(whole.writes.size()); ++nth) {
            RecordingOutputStream os;
            WriterCalls again(os);
            os.failAt = nth;
            makeCalls({lines[1], "restart:"}, 0, again);
            makeCalls(lines, 2, again);
            os.failAt = 0;
            os.writes.clear();
            makeCalls({"restart:"}, 0, again);
            makeCalls(lines, 2, again);
            EXPECT_EQ(whole.writes, os.writes) << lines[0] << ", write " << nth;
        }
    }
}

TEST_F(HTTPMessageSender, ReportsEachFailingAllocation) {
    std::set<std::string> backTraces;
    for (Lines const& lines : transcripts())
        forEachFailingAllocation([&] {
            Nowhere os;
            WriterCalls calls(os);
            for (std::string const& line : lines) try {
                    if (isCall(line)) calls.make(line);
                } catch (QORAssertError const&) {
                } catch (QOROutOfMemoryError const& e) {
                    AllocationPause const pause;
                    backTraces.insert(backTraceText(e));
                    throw;
                }
        });
    std::string const thrown = "QOR_THROW HTTPMessageSender\n";
    std::string const passed = "QOR_RETHROW HTTPMessageSender\n";
    EXPECT_EQ(1u, backTraces.count(thrown));                    // a body stream or a part
    EXPECT_EQ(1u, backTraces.count(thrown + passed));           // an encoder, or a part's stream
    EXPECT_EQ(1u, backTraces.count(thrown + passed + passed));  // a part's encoder
}

TEST_F(HTTPMessageSender, TakesMemoryForStagedHeadersAloneOnANodeUsedAgain) {
    HTTPHeaders staged;
    auto const stage = [&](char const* name, char const* value) {
        HTTPHeader header;
        header.parse(value);
        staged.setHeader(name, &header);
    };
    int const least = allocationsOf([&] {
        staged.reset();
        stage("Content-Type", "text/xml; charset=utf-8");
        stage("Content-Length", "1024");
    });
    Nowhere os;
    OnePieceHttpMsg node(os, 0);
    std::string const body(1024, 'x');
    auto const message = [&] {
        node.startResponse(200, "OK");
        node.setHeader("Content-Type", "text/xml; charset=utf-8");
        node.write(body.data(), 1024);
        node.finish();
    };
    message();
    EXPECT_EQ(least, allocationsOf(message));
}

TEST_F(HTTPMessageSender, PassesADirectPartOnFromTheCallersMemory) {
    std::string const body(8 << 20, 'x');
    OriginCounter os(body);
    MultipartHttpMsg node(os, 4096, "b1");
    node.startRequest("/", 0);
    OnePieceHttpMsg* const part = node.addOnePiece(-1);
    part->write(body.data(), static_cast<int>(body.size()));
    node.endPart(part);
    node.finish();
    EXPECT_EQ(body.size(), os.original);
    EXPECT_LT(os.other, 500u);
}

TEST_F(HTTPMessageSender, NamesTheAssertionThatFailed) {
    RecordingOutputStream os;
    HttpMsgNode node(os, 0);
    Stripped lost(os);
    OnePieceHttpMsg other(os, 0);
    WithoutEncoder chunked(&node);
    HttpNonChunkedOutputStream held(nullptr);
    held.write("x", 1);
    HttpDirectOutputStream withoutNode(nullptr, &os), withoutUpstream(&node, nullptr);
    std::vector<std::pair<char const*, std::function<void()>>> const calls = {
        {"p_os_content", [&] { lost.reset(); }},
        {"p_os_content", [&] { lost.finish(); }},
        {"p_os_content", [&] { lost.writePartBoundary(0); }},
        {"p_os_upstream", [&] { lost.writeHeaders(); }},
        {"p_os_upstream", [&] { lost.write_upstream("x", 1); }},
        {"p_current_part == part", [&] { lost.endPart(&other); }},
        {"msg_node", [&] { HttpChunkedOutputStream(nullptr, 9); }},
        {"theZULOutputStream", [&] { HttpChunkedOutputStream(&lost, 9); }},
        {"m_os_chunked", [&] { chunked.write("x", 1); }},
        {"m_os_chunked", [&] { chunked.flush(); }},
        {"m_os_chunked", [&] { chunked.close(); }},
        {"m_os_chunked", [&] { chunked.getChunkedStream(); }},
        {"p_msg_node", [&] { held.flush(); }},
        {"p_msg_node", [&] { withoutNode.write("x", 1); }},
        {"p_os_upstream", [&] { withoutUpstream.write("x", 1); }},
    };
    for (auto const& [expression, call] : calls)
        EXPECT_EQ(std::string("QOR_ASSERT(") + expression + ");", failedAssertion(call));
    EXPECT_EQ(Lines(), os.writes);
}
