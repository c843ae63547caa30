#include <cstring>

#include <gtest/gtest.h>

#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPParser.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/RowTest.h"
#include "support/StagedHeaders.h"

namespace {

// Makes the calls of data/model_transcripts.txt.
struct Model : HTTPMOMMsgHandler {
    Model() { setMessage(&root); }

    HTTPMessage root, other;
    std::vector<HTTPMessage*> open{&root};
    HTTPHeader value;
    StagedHeaders node;
    HTTPHeaders& headers = node.headers;
    HTTPHeader* kept = nullptr;
    std::string storedAs;
    std::vector<std::string> gave;

    void beginPart() {
        auto part = std::make_unique<HTTPMessage>();
        open.back()->addChild(part.get());
        open.push_back(part.release());
    }
    void header(char const* name, HTTPHeader* line) override {
        HTTPMOMMsgHandler::header(storedAs.empty() ? name : storedAs.c_str(), line);
    }
    void readLine(char const* bytes) {
        HTTPParser parser;
        parser.setMsgHandler(this);
        QORByteBuffer line(16, 16);
        line << bytes;
        parser.processHeader(line);
    }
    void say(char const* text) { gave.emplace_back(text ? text : "null"); }
    template <class Item, class... Args>
    void write(Item* item, Args... args) {
        QORByteBuffer buf(0, 1);
        if (item) item->dump(buf, args...);
        if constexpr (std::is_same_v<Item, HTTPMessage>) {
            EXPECT_TRUE(!item || buf.pcount() == buf.capacity()) << "room for it at once";
        }
        say(item ? buf.str() : nullptr);
    }
    void describe(HTTPMessage& m) {
        bool const hasParts = m.getPart(0) && !m.getPart(-1) && !m.getPart(m.num_parts());
        std::string const parts = std::to_string(m.num_parts());
        std::string text = '[' + std::to_string(m.contentSize());
        for (char const* const one : {m.contentBytes(), parts.c_str(), hasParts ? "part" : nullptr,
                                      m.getContentType(), m.getCharset(), m.getBoundary()})
            text += std::string("][") + (one ? one : "null");
        say((text + ']').c_str());
    }
    void body(int length, char const* bytes) {
        ZULMemoryInputStream stream(bytes, static_cast<int>(std::strlen(bytes)));
        length < 0 ? HTTPMOMMsgHandler::content(stream)
                   : HTTPMOMMsgHandler::content(stream, length);
    }
    void make(Call const& call) {
        onMessage(call, call.all(), call.first(), call.rest());
        onHeader(call, call.all(), call.first(), call.rest());
        onBuilder(call);
        call.mustBeKnown();
    }
    void onMessage(Call const& call, char const* all, char const* a, char const* b) {
        HTTPMessage& m = *open.back();
        int const n = call.number();
        if (call.is("set")) m.setHeader(a, b);
        if (call.is("get")) write(m.getHeader(a));
        if (call.is("content")) m.setContent(all, static_cast<int>(call.text.size()));
        if (call.is("contentof")) m.setContent(b, n);
        if (call.is("recontent")) m.setContent(m.contentBytes() + 2, 3);
        if (call.is("boundary")) m.setBoundary(a);
        if (call.is("type")) m.setContentType(a, b);
        if (call.is("swaptype")) m.setContentType(m.getCharset(), m.getContentType());
        if (call.is("part")) beginPart();
        if (call.is("end")) open.pop_back();
        if (call.is("down")) open.push_back(m.getPart(n));
        if (call.is("child")) m.addChild(nullptr);
        if (call.is("reset")) m.reset();
        if (call.is("describe")) describe(m);
        if (call.is("dump")) write(&m, n);
        if (call.is("status")) say(m.getStatusText(static_cast<HTTPMessage::StatusCode>(n)));
    }
    void onHeader(Call const& call, char const* all, char const* a, char const* b) {
        if (call.is("parse")) value.parse(all);
        if (call.is("reparse")) value.parse(*a ? value.getAttribute(a) : value.getValue());
        if (call.is("value")) value = HTTPHeader(all);
        if (call.is("revalue")) value.setValue(all);
        if (call.is("attribute")) value.setAttribute(a, b);
        if (call.is("ask")) say(value.getAttribute(a));
        if (call.is("write")) write(&value);
        if (call.is("stage")) node.setHeader(a, b);
        if (call.is("keep")) kept = *b ? headers.getHeader(a) : root.getHeader(a);
        if (call.is("show")) write(kept);
        if (call.is("change")) kept->setValue(all);
        if (call.is("clear")) headers.reset();
        if (call.is("store")) headers.setHeader(a, &value);
        if (call.is("storenone")) headers.setHeader(a, nullptr);
        if (call.is("take")) headers.moveHeader(a, value);
        if (call.is("remove")) headers.removeHeader(a);
        if (call.is("find")) write(headers.getHeader(a));
        if (call.is("lines")) write(&headers);
    }
    void onBuilder(Call const& call) {
        if (call.is("line")) readLine(call.all());
        if (call.is("as")) storedAs = call.text;
        if (call.is("addnone")) HTTPMOMMsgHandler::header(call.first(), nullptr);
        if (call.is("body")) body(call.number(), call.rest());
        if (call.is("startmultiparts")) startMultiParts(call.first());
        if (call.is("startpart")) startPart();
        if (call.is("endpart")) endPart();
        if (call.is("endmessage")) endMessage();
        if (call.is("other")) setMessage(&other);
        if (call.is("showother")) open = {&other};
        if (call.is("nomessage")) setMessage(nullptr);
        if (call.is("rebuild")) HTTPMOMMsgHandler::reset();
    }
};

TEST_ROWS(HTTPModel, AnswersEachCallOfATranscript, "model_transcripts.txt") {
    expectTranscript<Model>(c);
}

// What it writes is framing of its parts alone, but more than a buffer can hold.
TEST(HTTPMessage, WritesNothingOfATreeThatIsTooLarge) {
    Model model;
    model.root.setBoundary(std::string(1 << 16, 'b').c_str());
    for (int i = 0; i < 1 << 15; ++i) {
        model.beginPart();
        model.open.pop_back();
    }
    QORByteBuffer buf(16, 16);
    EXPECT_EQ("QOROutOfMemoryError", raisedText([&] { model.root.dump(buf, 0); }));
    EXPECT_EQ(0U, buf.pcount());
}

TEST(HTTPMessage, HasNoPartsAfterTheFirstCouldNotBeAdded) {
    forEachFailingAllocation([] {
        HTTPMessage message;
        auto part = std::make_unique<HTTPMessage>();
        try {
            message.addChild(part.get());
            return void(part.release());
        } catch (std::bad_alloc const&) {
        } catch (QOROutOfMemoryError const&) {
        }
        AllocationPause const pause;
        QORByteBuffer buf(64, 64);
        message.dump(buf, 0);
        EXPECT_STREQ("Content-Length: 0\r\n\r\n", buf.str());
        message.reset();
    });
}

}  // namespace
