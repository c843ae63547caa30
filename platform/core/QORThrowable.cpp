#include "foundation/QORThrowable.h"

#include <new>
#include <utility>

static char const kSourceFile[] = "QORThrowable";

namespace {

// Callers may leave out any text, and std::string takes no null.
char const* orEmpty(char const* text) { return text ? text : ""; }

// Running out of memory while a throwable is copied or added to is told in this library's own
// terms, as everywhere.
[[noreturn]] void raiseOutOfMemory(int line) {
    QOROutOfMemoryError(0, nullptr).hurl(QORFileLocation(kSourceFile, line), nullptr, "QOR_THROW");
}

// A copy on the heap.
template <class T>
T* copyOf(T const& original, int line) {
    try {
        return new T(original);
    } catch (std::bad_alloc const&) {
        raiseOutOfMemory(line);
    }
}

// "QOR_THROW at HTTPParser:120 in void HTTPParser::..."
std::string stationText(QORBackTraceEntry const& entry) {
    std::string text(orEmpty(entry.macro));
    text.append(" at ").append(orEmpty(entry.location.getFileName()));
    text.append(":").append(std::to_string(entry.location.getLine()));
    if (entry.method) text.append(" in ").append(entry.method);
    return text;
}

}  // namespace

I18NString::I18NString(char const* text, char const* catalogue, int number, FormatCallback format,
                       void* context)
    : m_text(orEmpty(text)),
      m_catalogue(orEmpty(catalogue)),
      m_number(number),
      m_format(format),
      m_context(context) {}

// The callback is asked each time: the language may change while the message lives.
char const* I18NString::getText() const { return m_format ? m_format(m_context) : m_text.c_str(); }

void I18NString::setText(char const* text) { m_text = orEmpty(text); }

QORMessageBase::~QORMessageBase() = default;

QORMessage::QORMessage(I18NString const& text) : m_text(text) {}
QORMessage::~QORMessage() = default;
char const* QORMessage::getText() const { return m_text.getText(); }
QORMessage* QORMessage::clone() const { return copyOf(*this, __LINE__); }

QORThrowable::QORThrowable() = default;
QORThrowable::~QORThrowable() = default;

// The description is not copied: out of memory is thrown as a copy too, and must take none.
QORThrowable::QORThrowable(QORThrowable const& other) : m_backTrace(other.m_backTrace) {}

QORThrowable& QORThrowable::operator=(QORThrowable const& other) {
    m_backTrace = other.m_backTrace;
    return *this;
}

// clone and hurl stand anew in every class below: new T(*this) and throw *this go by the type that
// the compiler sees, and would cut a derived object down to its base.
QORThrowable* QORThrowable::clone() const { return copyOf(*this, __LINE__); }

void QORThrowable::hurl(QORFileLocation const& where, char const* method, char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}

char const* QORThrowable::getMessage() { return nullptr; }
char const* QORThrowable::getMessage() const { return nullptr; }
char const* QORThrowable::getThrowableName() const { return "QORThrowable"; }

// Through the virtual form, so that a class adds its line to both by overriding one.
char const* QORThrowable::toString() {
    I18NString text(nullptr, nullptr, -1, nullptr, nullptr);
    toString("", "\n", text, -1);
    m_description = text.getText();
    return m_description.c_str();
}

void QORThrowable::toString(char const* prefix, char const* separator, I18NString& text,
                            int entries) {
    describe(getThrowableName(), prefix, separator, text, entries);
}

void QORThrowable::addBackTrace(QORFileLocation const& where, char const* method,
                                char const* macro) {
    // Full: the newest station is dropped, since the oldest tell where it began.
    QORBackTrace& trace = m_backTrace;
    if (trace.m_count < QORBackTrace::kCapacity)
        trace.m_entries[trace.m_count++] = QORBackTraceEntry{where, method, macro};
}

void QORThrowable::describe(std::string const& headline, char const* prefix, char const* separator,
                            I18NString& text, int entries) const {
    std::string lines(orEmpty(prefix));
    lines.append(headline);
    for (QORBackTraceEntry const& entry : m_backTrace) {
        if (entries-- == 0) break;  // below 0 it never gets there
        lines.append(orEmpty(separator)).append(orEmpty(prefix)).append(stationText(entry));
    }
    text.setText(lines.c_str());
}

QORException::QORException(QORSeverity severity, long code, char const* text)
    : m_severity(severity), m_code(code), m_hasText(text != nullptr), m_text(orEmpty(text)) {}

QORException::QORException(long code) : QORException(QORSeverity::Error, code, nullptr) {}
QORException::QORException(QORSeverity severity, long code)
    : QORException(severity, code, nullptr) {}
QORException::QORException(char const* text) : QORException(QORSeverity::Error, 0, text) {}
QORException::QORException(QORSeverity severity, char const* text)
    : QORException(severity, 0, text) {}

QORException::QORException(QORException const&) = default;

// All or nothing: what can fail comes first.
QORException& QORException::operator=(QORException const& other) {
    std::string text(other.m_text);
    QORMessageList messages(other.m_messages);
    QORThrowable::operator=(other);
    m_severity = other.m_severity;
    m_code = other.m_code;
    m_hasText = other.m_hasText;
    m_text.swap(text);
    m_messages.m_messages.swap(messages.m_messages);
    return *this;
}

QORException::~QORException() = default;

QORException* QORException::clone() const { return copyOf(*this, __LINE__); }

void QORException::hurl(QORFileLocation const& where, char const* method, char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}

char const* QORException::getMessage() {
    return static_cast<QORException const*>(this)->getMessage();
}

// An empty text is a text; no text at all lets the messages speak.
char const* QORException::getMessage() const {
    if (m_hasText) return m_text.c_str();
    return m_messages.size() > 0 ? m_messages[0].getText() : nullptr;
}

char const* QORException::getThrowableName() const { return "QORException"; }

void QORException::toString(char const* prefix, char const* separator, I18NString& text,
                            int entries) {
    std::string headline(getThrowableName());
    if (m_code != 0) headline.append(" ").append(std::to_string(m_code));
    if (char const* const message = getMessage()) headline.append(": ").append(message);
    describe(headline, prefix, separator, text, entries);
}

QORException& QORException::operator<<(QORMessageBase const& message) {
    try {
        // Owned before the list grows, which can fail.
        std::shared_ptr<QORMessageBase const> copy(message.clone());
        m_messages.m_messages.push_back(std::move(copy));
        return *this;
    } catch (std::bad_alloc const&) {
        raiseOutOfMemory(__LINE__);
    }
}

// The errors without members of their own differ in name and type alone.

QORAssertError::QORAssertError(long code, char const* text)
    : QORException(QORSeverity::Error, code, text) {}
QORAssertError::QORAssertError(QORAssertError const&) = default;
QORAssertError& QORAssertError::operator=(QORAssertError const&) = default;
QORAssertError::~QORAssertError() = default;
QORAssertError* QORAssertError::clone() const { return copyOf(*this, __LINE__); }
void QORAssertError::hurl(QORFileLocation const& where, char const* method, char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}
char const* QORAssertError::getThrowableName() const { return "QORAssertError"; }
void QORAssertError::raise(char const* text, QORFileLocation const& where) {
    QORAssertError(0, text).hurl(where, nullptr, "QOR_THROW");
}

QOROutOfMemoryError::QOROutOfMemoryError(long code, char const* text)
    : QORException(QORSeverity::Error, code, text) {}
QOROutOfMemoryError::QOROutOfMemoryError(QOROutOfMemoryError const&) = default;
QOROutOfMemoryError& QOROutOfMemoryError::operator=(QOROutOfMemoryError const&) = default;
QOROutOfMemoryError::~QOROutOfMemoryError() = default;
QOROutOfMemoryError* QOROutOfMemoryError::clone() const { return copyOf(*this, __LINE__); }
void QOROutOfMemoryError::hurl(QORFileLocation const& where, char const* method,
                               char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}
char const* QOROutOfMemoryError::getThrowableName() const { return "QOROutOfMemoryError"; }

QORIllegalStateError::QORIllegalStateError(long code, char const* text)
    : QORException(QORSeverity::Error, code, text) {}
QORIllegalStateError::QORIllegalStateError(QORIllegalStateError const&) = default;
QORIllegalStateError& QORIllegalStateError::operator=(QORIllegalStateError const&) = default;
QORIllegalStateError::~QORIllegalStateError() = default;
QORIllegalStateError* QORIllegalStateError::clone() const { return copyOf(*this, __LINE__); }
void QORIllegalStateError::hurl(QORFileLocation const& where, char const* method,
                                char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}
char const* QORIllegalStateError::getThrowableName() const { return "QORIllegalStateError"; }

QORStdExceptionError::QORStdExceptionError(std::exception const& cause)
    : QORException(QORSeverity::Error, 0, cause.what()) {}
QORStdExceptionError::QORStdExceptionError(QORStdExceptionError const&) = default;
QORStdExceptionError& QORStdExceptionError::operator=(QORStdExceptionError const&) = default;
QORStdExceptionError::~QORStdExceptionError() = default;
QORStdExceptionError* QORStdExceptionError::clone() const { return copyOf(*this, __LINE__); }
void QORStdExceptionError::hurl(QORFileLocation const& where, char const* method,
                                char const* macro) {
    addBackTrace(where, method, macro);
    throw *this;
}
char const* QORStdExceptionError::getThrowableName() const { return "QORStdExceptionError"; }
