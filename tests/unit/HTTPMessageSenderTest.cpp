#include <cstring>
#include <fstream>
#include <set>
#include <utility>

#include <gtest/gtest.h>
#include <unistd.h>

#include "foundation/ZULBufferedOutputStream.h"

#include "sender/HTTPMessageSender.h"
#include "sender/HttpOutputStream.h"
#include "socket/SoapSocket.h"
#include "support/AllocationFaults.h"
#include "support/CaseFile.h"
#include "support/Raised.h"
#include "support/ReaderConnection.h"
#include "support/RecordingOutputStream.h"
#include "support/SystemCallFaults.h"
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

// Makes the calls behind the first; whether the stream let all of them through.
bool makeCalls(Lines const& lines, WriterCalls& calls) {
    for (std::size_t i = 2; i < lines.size(); ++i)
        if (isCall(lines[i]) && raisedCode([&] { calls.make(lines[i]); }) == kStreamFailure)
            return false;
    return true;
}

std::string sized(char const* op, int chunk, char const* boundary = "") {
    return std::string(op) + ": " + std::to_string(chunk) + boundary;
}

// Messages in chunks of all shapes: one piece, and a part and a multipart part with a part in it.
std::vector<Lines> chunkedShapes() {
    std::vector<Lines> shapes;
    for (int const root : {4, 64, 4096}) {
        shapes.push_back({sized("one", root), "request: 0 /svc", "write: AAAA", "write: BBBB",
                          "write: CCCC", "finish:"});
        for (int const first : {0, 3, -1})
            for (int const second : {0, 3, -1})
                for (int const inner : {0, 3, second == 3 ? -1 : 5})
                    shapes.push_back(
                        {sized("multi", root, " b1"), "request: 0 /svc", sized("add", first),
                         first < 0 ? "header: Content-Length 9" : "", "write: hello", "write: more",
                         "end:", sized("addmulti", second, " b2"), sized("add", inner),
                         inner < 0 ? "header: Content-Length 5" : "", "write: inner",
                         "end:", "end:", "finish:"});
    }
    return shapes;
}

// What is on the wire when all calls are made, whatever they raise, over a stream that joins so
// many bytes (0: over none).
void makeAllCalls(Lines const& lines, ZULOutputStream& os, int joined) {
    ZULBufferedOutputStream buffered(os, std::max(joined, 1));
    WriterCalls calls(joined > 0 ? buffered : os);
    for (std::string const& line : lines) raised([&] { calls.make(line); });
    raised([&] { buffered.flush(); });
}

// Counts bytes: those from the caller's own memory, and the others.
struct OriginCounter : ZULOutputStream {
    void write(char const* data, int length) override {
        bool const own = data >= caller.data() && data < caller.data() + caller.size();
        (own ? original : made) += static_cast<std::size_t>(length);
    }
    std::string caller;
    std::size_t original = 0, made = 0;
};

class HTTPMessageSender : public ::testing::Test {
protected:
    void SetUp() override {
        std::strcpy(host_name, "node1");
        RecordingOutputStream os;
        WriterCalls(os).make("one: 0");  // the first call makes a table that stays
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
            for (std::string const& bytes : std::exchange(os.writes, {}))
                actual.push_back("> " + bytes);
            if (!error.empty()) actual.push_back("! " + error);
        }
        EXPECT_EQ(expected, actual);
        EXPECT_EQ(0, os.flushes + os.closes) << expected[0];
    }
}

TEST_F(HTTPMessageSender, BeginsAnewAfterAFailureOfEachWrite) {
    for (Lines const& lines : transcripts()) {
        std::set<Lines> outcomes;
        bool failed = true;
        for (int nth = 1; failed; ++nth) {
            RecordingOutputStream os;
            WriterCalls calls(os);
            calls.make(lines[1]);
            os.failAt = nth;
            failed = !makeCalls(lines, calls);
            os.failAt = 0;
            os.writes.clear();
            calls.make("restart:");
            makeCalls(lines, calls);
            outcomes.insert(os.writes);
        }
        EXPECT_EQ(1u, outcomes.size()) << lines[0];
    }
}

TEST_F(HTTPMessageSender, NeverEndsABodyThatLostBytesWell) {
    int cut = 0;
    for (Lines const& lines : chunkedShapes())
        for (int const joined : {0, 1, 50, 4096})
            for (bool const once : {true, false})
                for (int nth = 0, last = 1; nth <= last; ++nth) {
                    RecordingOutputStream os;
                    os.failAt = nth;
                    os.once = once;
                    makeAllCalls(lines, os, joined);
                    if (nth == 0) last = static_cast<int>(os.writes.size());
                    for (bool const hardened : {false, true}) {
                        ReaderConnection c(os.joined());
                        if (hardened) c.reader.setReadPolicy(HTTPReadPolicy::hardened());
                        auto const refused = raised([&] { c.request(); });
                        EXPECT_EQ(nth == 0, !refused)
                            << ::testing::PrintToString(lines) << joined << once << nth << hardened
                            << (refused ? refused->toString() : "") << os.joined();
                    }
                    cut += nth > 0;
                }
    EXPECT_LT(5000, cut);
}

TEST_F(HTTPMessageSender, ReportsEachFailingAllocation) {
    std::set<std::string> backTraces;
    auto const makeAll = [&](Lines const& lines) {
        OriginCounter os;
        WriterCalls calls(os);
        for (std::string const& line : lines) try {
                if (isCall(line)) calls.make(line);
            } catch (QORAssertError const&) {
            } catch (QOROutOfMemoryError const& e) {
                AllocationPause const pause;
                backTraces.insert(backTraceText(e));
                throw;
            }
    };
    for (Lines const& lines : transcripts()) forEachFailingAllocation([&] { makeAll(lines); });
    std::string const thrown = "QOR_THROW HTTPMessageSender\n";
    std::string const passed = "QOR_RETHROW HTTPMessageSender\n";
    // A body stream or a part; an encoder, or a part's stream; a part's encoder.
    for (std::string const& trace : {thrown, thrown + passed, thrown + passed + passed})
        EXPECT_EQ(1u, backTraces.count(trace)) << trace;
}

TEST_F(HTTPMessageSender, ReadsTheMachineNameOnceAndAgainAfterAFailure) {
    RecordingOutputStream os;
    OnePieceHttpMsg node(os, 0);
    host_name[0] = '\0';
    {
        SystemCallFaults const faults("gethostname=EPERM*3");
        EXPECT_THROW(node.startRequest("/", 0), SoapSocketException);
        EXPECT_THROW(OnePieceHttpMsg(os, 0), SoapSocketException);
        EXPECT_THROW(MultipartHttpMsg(os, 7, "b1"), SoapSocketException);
    }
    SystemCallFaults const none("");
    OnePieceHttpMsg const first(os, 0), second(os, 0);
    EXPECT_EQ("gethostname", SystemCallFaults::log());
    char name[256] = "";
    ::gethostname(name, 255);
    EXPECT_STREQ(name, host_name);
}

TEST_F(HTTPMessageSender, PassesADirectPartOnFromTheCallersMemory) {
    OriginCounter os;
    os.caller.assign(8 << 20, 'x');
    MultipartHttpMsg node(os, 4096, "b1");
    node.addOnePiece(-1)->write(os.caller.data(), 8 << 20);
    node.finish();
    EXPECT_EQ(os.caller.size(), os.original);
    EXPECT_LT(os.made, 500u);
}

TEST_F(HTTPMessageSender, TakesNoMemoryOnANodeUsedAgain) {
    OriginCounter os;
    OnePieceHttpMsg node(os, 0);
    std::string const body(1024, 'x');
    auto const message = [&] {
        node.startResponse(200, "OK");
        node.setHeader("Content-Type", "text/xml");
        node.write(body.data(), 1024);
        node.finish();
    };
    message();
    EXPECT_EQ(0, allocationsOf(message));
}
