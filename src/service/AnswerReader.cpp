#include "service/AnswerReader.h"

#include <algorithm>
#include <climits>
#include <memory>

#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

#include "foundation/HTTPException.h"
#include "service/NumberedFile.h"

namespace postwire {

namespace {

constexpr int kBlock = 65536;

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

}  // namespace

AnswerReader::AnswerReader(ClientOptions const& client, PostOptions const& call,
                           ExchangeWatch& watch, Answer::Data& answer)
    : IncomingMessage(answer.heads), m_call(call), m_watch(watch), m_answer(answer) {
    m_target = call.handler;
    HTTPReadPolicy policy = client.policy;
    if (m_target || !call.saveTo.empty()) policy.maxBody = 0;
    listenTo(m_parser);
    m_parser.setReadPolicy(policy);
    setMessage(&answer.message);
}

AnswerReader::~AnswerReader() = default;

void AnswerReader::read(ZULBufferedInputStream& in) try {
    m_parser.parseResponse(&in);
} catch (HTTPException const& e) {
    bool const hasBegun = m_watch.hasReceived();
    if (e.getCode() == HTTPException::HTTP_ERR_END_OF_STREAM && !hasBegun)
        m_watch.raise(ClientError::Code::receive,
                      "the server closed the connection without an answer");
    refuse(textOf(e));
} catch (ZULStreamException const& e) {
    refuse(textOf(e));
} catch (QORAssertError const& e) {
    refuse(textOf(e));
}

void AnswerReader::refuse(std::string const& text) const {
    m_watch.raise(ClientError::Code::malformed, "bad answer: " + text, 0, m_answer.status);
}

void AnswerReader::setStatusCode(HTTPMessage::StatusCode code) {
    m_answer.status = static_cast<int>(code);
    if (m_target) m_target->setStatusCode(code);
}

void AnswerReader::setStatusMessage(char const* text) {
    m_answer.reason = text;
    if (m_target) m_target->setStatusMessage(text);
}

// Before the first event of a body.
void AnswerReader::beginBody() {
    if (!m_inHead) return;
    m_inHead = false;
    m_watch.enter(ExchangeWatch::Stage::receiving);
}

void AnswerReader::content(ZULInputStream& is, int length) {
    beginBody();
    // Lengths end there: it may stand for any larger one.
    if (length == INT_MAX) refuse("a body of 2 GiB or more comes without chunks");
    if (!m_target && !m_call.saveTo.empty()) return save(is, length);
    IncomingMessage::content(is, length);
}

void AnswerReader::content(ZULInputStream& is) {
    beginBody();
    if (!m_target && !m_call.saveTo.empty()) return save(is, INT_MAX);
    IncomingMessage::content(is);
}

// A body without an end of its own, INT_MAX, ends with the stream.
void AnswerReader::save(ZULInputStream& is, int length) {
    NumberedFile file(m_call.saveTo, m_answer.files.size() + 1);
    auto const block = std::make_unique<char[]>(kBlock);
    for (int left = length; left > 0;) {
        int const n = is.read(block.get(), std::min(left, kBlock));
        if (n == -1 && length == INT_MAX) break;
        if (n == -1) refuse("the body ends too soon");
        file.write(block.get(), static_cast<std::size_t>(n));
        if (length != INT_MAX) left -= n;
    }
    m_answer.files.push_back(file.path());
    file.keep();
}

void AnswerReader::startMultiParts(char const* boundary) {
    beginBody();
    IncomingMessage::startMultiParts(boundary);
}

}  // namespace postwire
