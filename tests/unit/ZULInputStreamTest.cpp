#include <list>

#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULChunkedInputStream.h"
#include "foundation/ZULMemoryInputStream.h"

#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/RowTest.h"

namespace {

std::string textOf(QORByteBuffer const& b) { return {b.str(), b.pcount()}; }

// Gives more than it is asked for.
struct Excess : ZULInputStream {
    using ZULInputStream::read;
    int read(char*, int n) override { return n + 1; }
};

// Streams, each over the one made before; the calls of input_transcripts.txt go to the last.
struct Streams {
    std::list<std::unique_ptr<ZULInputStream>> made;
    std::list<std::string> lent;
    QORByteBuffer buf{0, 1};
    char memory[4096] = "";
    std::vector<std::string> gave;

    void say(int n) { gave.push_back(std::to_string(n)); }
    void sayRead(int n, char const* bytes) {
        say(n);
        if (n > 0) gave.back().append(" ").append(bytes, bytes + n);
    }
    void sayBuffer(int n) {
        sayRead(n, buf.str());
        buf.reset();
    }
    void make(Call const& call) {
        int const n = call.number();
        if (call.is("wire")) made.push_back(std::make_unique<FragmentingStream>(call.text));
        if (call.is("pieces")) made.push_back(std::make_unique<FragmentingStream>(call.rest(), n));
        if (call.is("excess")) made.push_back(std::make_unique<Excess>());
        if (call.is("memory")) {
            char const* const bytes = lent.emplace_back(call.rest()).c_str();
            made.push_back(std::make_unique<ZULMemoryInputStream>(bytes, n));
        }
        auto* const wire = dynamic_cast<FragmentingStream*>(made.front().get());
        ZULInputStream& in = *made.back();
        auto* const buffered = dynamic_cast<ZULBufferedInputStream*>(&in);
        if (call.is("filter")) made.push_back(std::make_unique<ZULFilterInputStream>(in));
        if (call.is("buffered")) made.push_back(std::make_unique<ZULBufferedInputStream>(in, n));
        if (call.is("chunked")) made.push_back(std::make_unique<ZULChunkedInputStream>(*buffered));
        if (call.is("copy")) made.push_back(std::make_unique<ZULBufferedInputStream>(*buffered));
        if (call.is("detach")) dynamic_cast<ZULFilterInputStream&>(in).detach();
        if (call.is("maxframing"))
            dynamic_cast<ZULChunkedInputStream&>(in).setMaxFraming(n, std::atoi(call.rest()));
        if (call.is("read")) sayRead(in.read(memory, n), memory);
        if (call.is("readfully")) sayRead(in.readFully(memory, n), memory);
        if (call.is("tobuffer")) sayBuffer(in.read(buf, n));
        if (call.is("fullytobuffer")) sayBuffer(in.readFully(buf, n));
        if (call.is("buffer")) sayBuffer(static_cast<int>(buf.pcount()));
        if (call.is("byte")) say(in.read());
        if (call.is("unread")) try {
                in.unread(call.rest(), n);
            } catch (char const* const& text) {
                gave.emplace_back(text);
            }
        if (call.is("unreadown"))
            buffered->unread(buffered->peek(peeked) + n, std::atoi(call.rest()));
        if (call.is("can")) say(in.canUnread() + in.canTimeout() * 2 + in.canCancel() * 4);
        if (call.is("settings")) say(in.getTimeout() + in.getCancel());
        if (call.is("maxline")) buffered->setMaxLine(n);
        if (call.is("peek")) gave.emplace_back(buffered->peek(peeked), 1);
        if (call.is("skip")) buffered->skip(n);
        if (call.is("append")) wire->append(call.text);
        if (call.is("failread")) wire->failAtRead(n);
        if (call.is("reads")) say(wire->reads());
        if (call.is("largest")) say(wire->largestRequest());
        call.mustBeKnown();
    }
    int peeked = 0;
};

void readOn(ZULInputStream& in, QORByteBuffer& data, int request) {
    while (in.read(data, request) > 0) continue;
}

struct Decoded {
    QORByteBuffer data{16, 16}, rest{16, 16};
    long error = 0;

    // In reads of at most `request` bytes, the nth read beneath failing once; asks again after the
    // end or the error.
    Decoded(std::string const& coded, int step, int request, int readAhead, int failing = 0) {
        FragmentingStream wire(coded, step);
        ZULBufferedInputStream beneath(wire, readAhead);
        ZULChunkedInputStream decoder(beneath);
        auto const decode = [&] { readOn(decoder, data, request); };
        wire.failAtRead(failing);
        error = raisedCode(decode);
        if (failing > 0) error = raisedCode(decode);
        int const reads = wire.reads();
        EXPECT_EQ(error, raisedCode(decode)) << "asked again";
        EXPECT_EQ(reads, wire.reads()) << "asked again";
        if (error == 0) readOn(beneath, rest, 1000);
    }
};

}  // namespace

TEST_ROWS(ZULInputStream, AnswersEachCallOfATranscript, "input_transcripts.txt") {
    expectTranscript<Streams>(c);
}

TEST_ROWS(ZULBufferedInputStream, ReadsLinesAtEverySplit, "lines.txt") {
    forEachReadSize([&](int step) {
        for (int const size : {1, 2, 3, 7, 4096}) {
            SCOPED_TRACE("buffer size " + std::to_string(size));
            FragmentingStream wire(c["bytes"], step);
            ZULBufferedInputStream in(wire, size);
            in.setMaxLine(static_cast<int>(c.number("limit")));
            std::string lines;
            QORByteBuffer line(0, 1);
            long const code = raisedCode([&] {
                for (; in.readLine(line) >= 0; line.reset()) lines += '[' + textOf(line) + ']';
            });
            EXPECT_EQ(c["lines"], code == 0 ? lines : lines + std::to_string(code));
            EXPECT_GE(104U, line.pcount()) << "taken in spite of the limit";
        }
    });
}

TEST_ROWS(ZULChunkedInputStream, DecodesOrRefusesAtEveryReadSizeCutAndFailure,
          "chunked_bodies.txt") {
    std::string const& coded = c["coded"];
    long const error = c.number("error");
    forEachReadSize([&](int step) {
        for (int const request : {4096, 3, 1})
            for (int const readAhead : {4096, 6, 1}) {
                Decoded const found(coded, step, request, readAhead);
                EXPECT_EQ(c["data"], textOf(found.data));
                EXPECT_EQ(c["rest"], textOf(found.rest));
                EXPECT_EQ(error, found.error);
                if (coded.size() > 10000) return;
            }
    });
    if (error != 0 || coded.size() > 200) return;
    for (std::size_t cut = coded.size() - c["rest"].size(); cut-- > 0;) {
        Decoded const found(coded.substr(0, cut), 5, 4096, 16);
        EXPECT_EQ(ZULStreamException::ZUL_ERR_END_OF_INPUT, found.error) << cut;
        EXPECT_EQ(0U, c["data"].find(textOf(found.data))) << cut;
        EXPECT_EQ(c["data"], textOf(Decoded(coded, 1, 2, 4, static_cast<int>(cut) + 1).data))
            << cut;
    }
}
