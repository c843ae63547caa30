#include <gtest/gtest.h>

#include "parser/HTTPParser.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"
#include "support/RowTest.h"
#include "support/StagedHeaders.h"

namespace {

// Makes the calls of data/model_calls.txt.
struct Model : HTTPMOMMsgHandler {
    Model() { setMessage(&root); }

    HTTPMessage root;
    std::vector<HTTPMessage*> open{&root};
    HTTPHeader value;
    StagedHeaders node;
    HTTPHeaders& headers = node.headers;
    HTTPHeader* kept = nullptr;
    std::string storedAs;
    std::string said;

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
    void say(char const* text) { said.append("[").append(text ? text : "null").append("]"); }
    template <class Item, class... Args>
    void write(Item* item, Args... args) {
        QORByteBuffer buf(16, 1);
        if (item) item->dump(buf, args...);
        say(item ? buf.str() : nullptr);
    }
    void describe(HTTPMessage& m) {
        say(std::to_string(m.contentSize()).c_str());
        say(m.contentBytes());
        say(std::to_string(m.num_parts()).c_str());
        say(m.getPart(0) && !m.getPart(-1) && !m.getPart(m.num_parts()) ? "part" : nullptr);
        for (char const* const text : {m.getContentType(), m.getCharset(), m.getBoundary()})
            say(text);
    }
    void call(std::string_view op, char const* a, char const* b) {
        HTTPMessage& m = *open.back();
        std::string text = a ? a : "";
        int const n = std::atoi(text.c_str());
        if (op == "set") m.setHeader(a, b);
        if (op == "get") write(m.getHeader(a));
        if (op == "content") m.setContent(a, *b ? std::atoi(b) : static_cast<int>(text.size()));
        if (op == "recontent") m.setContent(m.contentBytes() + 2, 3);
        if (op == "boundary") m.setBoundary(a);
        if (op == "type") m.setContentType(a, b);
        if (op == "swaptype") m.setContentType(m.getCharset(), m.getContentType());
        if (op == "part") beginPart();
        if (op == "end") open.pop_back();
        if (op == "child") m.addChild(nullptr);
        if (op == "reset") m.reset();
        if (op == "describe") describe(m);
        if (op == "dump") write(&m, n);
        if (op == "status") say(m.getStatusText(static_cast<HTTPMessage::StatusCode>(n)));
        if (op == "parse") value.parse(a);
        if (op == "line") readLine(text.append(":").append(b).c_str());
        if (op == "as") storedAs = text;
        if (op == "stage") node.setHeader(a, b);
        if (op == "keep") kept = *b ? headers.getHeader(a) : root.getHeader(a);
        if (op == "show") write(kept);
        if (op == "change") kept->setValue(a);
        if (op == "reparse") value.parse(*a ? value.getAttribute(a) : value.getValue());
        if (op == "value") value = HTTPHeader(a);
        if (op == "revalue") value.setValue(a);
        if (op == "attribute") value.setAttribute(a, b);
        if (op == "ask") say(value.getAttribute(a));
        if (op == "write") write(&value);
        if (op == "addnone") HTTPMOMMsgHandler::header(a, nullptr);
        if (op == "clear") headers.reset();
        if (op == "store") headers.setHeader(a, &value);
        if (op == "storenone") headers.setHeader(a, nullptr);
        if (op == "take") headers.takeHeader(a, value);
        if (op == "remove") headers.removeHeader(a);
        if (op == "find") write(headers.getHeader(a));
        if (op == "lines") write(&headers);
    }
    void make(std::string const& calls) {
        for (std::size_t at = 0, end = 0; end < calls.size(); at = end + 3) {
            end = std::min(calls.find(" ~ ", at), calls.size());
            std::size_t const blank = std::min(calls.find(' ', at), end);
            std::size_t const colon = std::min(calls.find(':', blank), end);
            std::string const a = calls.substr(blank, colon - blank).erase(0, 1);
            std::string const b = calls.substr(colon, end - colon).erase(0, 1);
            try {
                call(calls.substr(at, blank - at), a == "(null)" ? nullptr : a.c_str(),
                     b == "(null)" ? nullptr : b.c_str());
            } catch (QORAssertError const& e) {
                say(e.getMessage());
            }
        }
    }
};

TEST_ROWS(HTTPMessage, DoesAsItsCallsSay, "model_calls.txt") {
    Model model;
    model.make(c["calls"]);
    EXPECT_EQ(c["said"], model.said);
    forEachFailingAllocation([&] { Model().make(c["calls"]); });
}

// What it writes is framing of its parts alone, but more than a buffer can hold.
TEST(HTTPMessage, WritesNothingOfATreeThatIsTooLarge) {
    Model model;
    model.root.setBoundary(std::string(1 << 16, 'b').c_str());
    for (int i = 0; i < 1 << 15; ++i) model.make("part ~ end");
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
