#include "service/Answer.h"

#include <utility>

#include "service/AnswerData.h"

namespace postwire {

Answer::Answer(std::unique_ptr<Data> data) : m_data(std::move(data)) {}
Answer::Answer(Answer&&) noexcept = default;
Answer& Answer::operator=(Answer&&) noexcept = default;
Answer::~Answer() = default;

int Answer::status() const { return m_data->status; }
std::string const& Answer::reason() const { return m_data->reason; }
HTTPMessage& Answer::message() { return m_data->message; }
HTTPMessage const& Answer::message() const { return m_data->message; }
int Answer::headCount() const { return m_data->heads.count(); }
std::vector<HeadLine> Answer::headLines(int head) const { return m_data->heads.lines(head); }

std::string Answer::body() {
    HTTPMessage& message = m_data->message;
    if (message.contentSize() <= 0) return {};
    return {message.contentBytes(), static_cast<std::size_t>(message.contentSize())};
}

std::vector<std::string> const& Answer::files() const { return m_data->files; }
std::uint64_t Answer::bytesSent() const { return m_data->bytesSent; }
std::uint64_t Answer::bytesReceived() const { return m_data->bytesReceived; }
std::chrono::microseconds Answer::duration() const { return m_data->duration; }
int Answer::traceError() const { return m_data->traceError; }

}  // namespace postwire
