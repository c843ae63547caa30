#include <cstring>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <unistd.h>

#include "foundation/ZULBufferedOutputStream.h"

#include "sender/HTTPMessageSender.h"
#include "sender/HttpOutputStream.h"
#include "socket/SoapSocket.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/ReaderConnection.h"
#include "support/RecordingOutputStream.h"
#include "support/RowTest.h"
#include "support/SystemCallFaults.h"
#include "support/WriterCalls.h"

namespace {

// Makes the calls; whether the stream let all of them through.
bool makeCalls(std::vector<Call> const& calls, WriterCalls& writer) {
    for (Call const& call : calls) {
        auto const make = [&] { call.is("fail") ? void() : writer.make(call); };
        if (raisedCode(make) == kStreamFailure) return false;
    }
    return true;
}

// What is on the wire when all calls are made, whatever they raise, over a stream that joins so
// many bytes (0: over none).
void makeAllCalls(std::vector<Call> const& calls, ZULOutputStream& os, int joined) {
    ZULBufferedOutputStream buffered(os, std::max(joined, 1));
    WriterCalls writer(joined > 0 ? buffered : os);
    for (Call const& call : calls) raised([&] { writer.make(call); });
    raised([&] { buffered.flush(); });
}

struct Writer {
    Writer() { os.once = true; }
    void make(Call const& call) {
        call.is("fail") ? os.failIn(call.number()) : calls.make(call);
        for (; os.flushes > 0; --os.flushes) os.writes.emplace_back("flush");
        EXPECT_EQ(0, os.closes);
    }

    RecordingOutputStream os;
    WriterCalls calls{os};
    std::vector<std::string>& gave = os.writes;
};

// Counts bytes: those from the caller's own memory, and the others.
struct OriginCounter : ZULOutputStream {
    void write(char const* data, int length) override {
        bool const own = data >= caller.data() && data < caller.data() + caller.size();
        (own ? original : made) += static_cast<std::size_t>(length);
    }
    std::string caller;
    std::size_t original = 0, made = 0;
};

// Is there before the first test, as the table of names that the first node makes stays.
struct MachineName : ::testing::Environment {
    void SetUp() override {
        std::strcpy(host_name, "node1");
        RecordingOutputStream os;
        OnePieceHttpMsg(os, 0);
    }
};
auto* const kMachineName = ::testing::AddGlobalTestEnvironment(new MachineName);

}  // namespace

TEST_ROWS(HTTPMessageSender, MakesTheWritesOfATranscript, "writer_transcripts.txt",
          "output_transcripts.txt") {
    expectTranscript<Writer>(c);
}

TEST_ROWS(HTTPMessageSender, BeginsAnewAfterAFailureOfEachWrite, "writer_transcripts.txt",
          "output_transcripts.txt") {
    std::vector<Call> calls = callsOf(c["calls"]);
    Call const root = calls.front();
    calls.erase(calls.begin());
    std::set<std::vector<std::string>> outcomes;
    bool failed = true;
    for (int nth = 1; failed; ++nth) {
        RecordingOutputStream os;
        WriterCalls writer(os);
        writer.make(root);
        os.failAt = nth;
        failed = !makeCalls(calls, writer);
        os.failAt = 0;
        os.writes.clear();
        writer.make(Call("restart:"));
        makeCalls(calls, writer);
        outcomes.insert(os.writes);
    }
    EXPECT_EQ(1u, outcomes.size());
}

TEST_ROWS(HTTPMessageSender, NeverEndsABodyThatLostBytesWell, "writer_shapes.txt") {
    std::vector<Call> const calls = callsOf(c["calls"]);
    for (int const joined : {0, 1, 50, 4096})
        for (bool const once : {true, false})
            for (int nth = 0, last = 1; nth <= last; ++nth) {
                SCOPED_TRACE("joined " + std::to_string(joined) + ", write " + std::to_string(nth));
                RecordingOutputStream os;
                os.failAt = nth;
                os.once = once;
                makeAllCalls(calls, os, joined);
                if (nth == 0) last = static_cast<int>(os.writes.size());
                for (bool const hardened : {false, true}) {
                    ReaderConnection reading(os.joined());
                    if (hardened) reading.reader.setReadPolicy(HTTPReadPolicy::hardened());
                    auto const refused = raised([&] { reading.request(); });
                    EXPECT_EQ(nth == 0, !refused) << once << hardened << os.joined();
                }
            }
}

TEST(HTTPMessageSender, ReadsTheMachineNameOnceAndAgainAfterAFailure) {
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

TEST(HTTPMessageSender, ReadsTheMachineNameInSeveralThreads) {
    char name[256] = "";
    ::gethostname(name, 255);
    for (int i = 0; i < 50; ++i) {
        host_name[0] = '\0';
        std::vector<std::thread> threads(8);
        for (std::thread& thread : threads)
            thread = std::thread([&name] {
                RecordingOutputStream os;
                OnePieceHttpMsg(os, 0).finish();
                EXPECT_EQ(std::string("Content-Length: 0\r\nHost: ") + name + "\r\n\r\n",
                          os.joined());
            });
        for (std::thread& thread : threads) thread.join();
        EXPECT_STREQ(name, host_name);
    }
}

TEST(HTTPMessageSender, PassesADirectPartOnFromTheCallersMemory) {
    OriginCounter os;
    os.caller.assign(8 << 20, 'x');
    MultipartHttpMsg node(os, 4096, "b1");
    node.addOnePiece(-1)->write(os.caller.data(), 8 << 20);
    node.finish();
    EXPECT_EQ(os.caller.size(), os.original);
    EXPECT_LT(os.made, 500u);
}

TEST(HTTPMessageSender, TakesNoMemoryOnANodeUsedAgain) {
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
