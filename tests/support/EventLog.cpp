#include "support/EventLog.h"

#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"

#include "foundation/HTTPException.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/TreeText.h"

namespace {

std::string shown(QORByteBuffer const& bytes) {
    std::string const all(bytes.str(), bytes.pcount());
    return all.size() <= 64 ? printable(all) : bodyText(all);
}

std::string describe(HTTPException const& e) {
    EXPECT_EQ(1U, e.getMessages().size());
    auto const code = static_cast<HTTPException::plexaErrorCode>(e.getCode());
    EXPECT_STREQ(HTTPException::getMessageString(code), e.getMessages()[0].getText());
    std::size_t const thrown = e.getBackTrace().size();
    std::string const method = e.getBackTrace()[0].method;
    std::size_t const name = method.find("::") + 2;
    std::string text = "HTTPException " + std::to_string(e.getCode()) + ' ' +
                       method.substr(name, method.find('(') - name);
    for (std::size_t i = 0; i < thrown; ++i) {
        QORBackTraceEntry const& entry = e.getBackTrace()[i];
        EXPECT_STREQ("HTTPParser", entry.location.getFileName());
        EXPECT_STREQ(i == 0 ? "QOR_THROW" : "QOR_RETHROW", entry.macro);
    }
    return thrown > 1 ? text + " +" + std::to_string(thrown - 1) : text;
}

std::string describe(QORThrowable const& t) {
    if (auto const* const e = dynamic_cast<HTTPException const*>(&t)) return describe(*e);
    if (dynamic_cast<QORAssertError const*>(&t)) return t.getMessage();
    auto const* const coded = dynamic_cast<QORException const*>(&t);
    std::string const name = t.getThrowableName();
    return coded ? name + ' ' + std::to_string(coded->getCode()) : name;
}

}  // namespace

void EventLog::setURI(char const* uri) { note("uri " + printable(uri)); }

void EventLog::setStatusCode(HTTPMessage::StatusCode code) {
    note("status " + std::to_string(static_cast<int>(code)));
}

void EventLog::setStatusMessage(char const* text) { note("reason " + printable(text)); }

void EventLog::header(char const* name, HTTPHeader* value) {
    QORByteBuffer line(256, 256);
    line << name << ": ";
    value->dump(line);
    note(shown(line));
}

void EventLog::content(ZULInputStream& is, int length) {
    note("content " + std::to_string(length));
    QORByteBuffer bytes(256, 256);
    is.readFully(bytes, length);
    m_text += shown(bytes);
}

void EventLog::content(ZULInputStream& is) {
    note("content");
    QORByteBuffer bytes(256, 256);
    while (is.read(bytes, 4096) != -1) {
    }
    m_text += shown(bytes);
}

void EventLog::startMultiParts(char const* boundary) {
    note("startMultiParts " + printable(boundary));
}

void EventLog::endMultiParts(char const* boundary) { note("endMultiParts " + printable(boundary)); }

std::string parseEvents(HTTPParser& parser, void (HTTPParser::*parse)(ZULBufferedInputStream*),
                        std::string const& bytes, int step) {
    EventLog log;
    FragmentingStream stream(bytes, step);
    ZULBufferedInputStream buffered(stream, 4096);
    parser.setMsgHandler(&log);
    if (auto const t = raised([&] { (parser.*parse)(&buffered); })) log.note(describe(*t));
    QORByteBuffer left(256, 256);
    while (buffered.read(left, 4096) != -1) {
    }
    if (left.pcount() != 0) log.note("left " + shown(left));
    parser.setMsgHandler(nullptr);
    return log.text();
}
