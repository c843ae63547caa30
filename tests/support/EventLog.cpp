#include "support/EventLog.h"

#include <gtest/gtest.h>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"

#include "foundation/HTTPException.h"
#include "parser/HTTPReadPolicy.h"
#include "support/FragmentingStream.h"
#include "support/Raised.h"
#include "support/TreeText.h"

namespace {

std::string shown(QORByteBuffer const& bytes) {
    std::string const all(bytes.str(), bytes.pcount());
    return all.size() <= 64 ? printable(all) : bodyText(all);
}

// An error of the parser itself: the methods that it passed are in its back-trace.
std::string describe(HTTPException const& e) {
    EXPECT_EQ(1U, e.getMessages().size());
    auto const code = static_cast<HTTPException::plexaErrorCode>(e.getCode());
    EXPECT_STREQ(HTTPException::getMessageString(code), e.getMessages()[0].getText());
    std::string const rethrown =
        "QOR_RETHROW HTTPParser void HTTPParser::processEntities( ZULBufferedInputStream *is )\n";
    std::string trace = backTraceText(e);
    int levels = 0;
    for (std::size_t at; (at = trace.rfind(rethrown)) != std::string::npos; ++levels)
        trace.erase(at, rethrown.size());
    std::string const name = trace.substr(38, trace.find("(") - 38);
    std::string const argument = name == "processHeader" ? "QORByteBuffer &osline"
                                 : name[0] == 'v'        ? "QORByteBuffer &line"
                                                         : "ZULBufferedInputStream *is";
    EXPECT_EQ("QOR_THROW HTTPParser void HTTPParser::" + name + "( " + argument + " )\n", trace);
    std::string const text = "HTTPException " + std::to_string(e.getCode()) + ' ' + name;
    return levels > 0 ? text + " +" + std::to_string(levels) : text;
}

std::string describe(QORThrowable const& t) {
    if (auto const* const e = dynamic_cast<HTTPException const*>(&t))
        if (e->getCode() < HTTPPolicyException::HTTP_ERR_POLICY_FIRST) return describe(*e);
    if (dynamic_cast<QORAssertError const*>(&t)) return t.getMessage();
    auto const* const coded = dynamic_cast<QORException const*>(&t);
    std::string const name = t.getThrowableName();
    return coded ? name + ' ' + std::to_string(coded->getCode()) : name;
}

}  // namespace

void EventLog::note(std::string const& event) {
    m_text += '[' + event + ']';
    if (event == m_failAt) HTTPException(1).hurl(QORFileLocation("test", 0), nullptr, "QOR_THROW");
}

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
