#include "service/LibraryError.h"

namespace postwire {

namespace {

std::string textOf(QORThrowable const& raised) {
    char const* const text = raised.getMessage();
    return text ? text : raised.getThrowableName();
}

std::string traceOf(QORThrowable const& raised) {
    std::string trace;
    for (QORBackTraceEntry const& entry : raised.getBackTrace()) {
        if (!trace.empty()) trace += ' ';
        char const* const file = entry.location.getFileName();
        trace.append(file ? file : "?").append(":") += std::to_string(entry.location.getLine());
    }
    return trace;
}

}  // namespace

LibraryError::LibraryError(QORThrowable const& raised)
    : std::runtime_error(textOf(raised)),
      m_trace(std::make_shared<std::string const>(traceOf(raised))) {
    if (auto const* const known = dynamic_cast<QORException const*>(&raised))
        m_code = known->getCode();
}

LibraryError::LibraryError(SoapSocketException& raised)
    : std::runtime_error(raised.getDetails()),
      m_trace(std::make_shared<std::string const>()),
      m_code(raised.id()),
      m_systemError(raised.systemError()) {}

LibraryError::LibraryError(char const* raised)
    : std::runtime_error(raised), m_trace(std::make_shared<std::string const>()) {}

LibraryError::LibraryError(LibraryError const&) noexcept = default;
LibraryError& LibraryError::operator=(LibraryError const&) noexcept = default;
LibraryError::~LibraryError() = default;

}  // namespace postwire
