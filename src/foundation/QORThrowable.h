#pragma once

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "foundation/Export.h"

// A place in a source file.
//
// Ownership: the name is borrowed and must outlive every throwable that carries it; the library
//   passes string constants.
class POSTWIRE_EXPORT QORFileLocation {
public:
    QORFileLocation() = default;
    QORFileLocation(char const* fileName, int line) : m_fileName(fileName), m_line(line) {}

    // The name of the source file without folder and extension, as "HTTPParser".
    char const* getFileName() const { return m_fileName; }
    int getLine() const { return m_line; }

private:
    char const* m_fileName = nullptr;
    int m_line = 0;
};

// How bad an error is. The library passes it through and never looks at it.
enum class QORSeverity : int { Information, Warning, Error, Fatal };

// A text that a product with translations can look up elsewhere.
//
// Ownership: copies both texts; the callback's context is borrowed.
class POSTWIRE_EXPORT I18NString {
public:
    // Gives the text to show in place of the stored one; called by each getText().
    using FormatCallback = char const* (*)(void* context);

    // `catalogue` and `number` name the text in a message catalogue: null and -1 for none. The
    // library itself builds only (text, null, -1, null, null).
    I18NString(char const* text, char const* catalogue, int number, FormatCallback format,
               void* context);

    char const* getText() const;
    void setText(char const* text);
    char const* getCatalogue() const { return m_catalogue.c_str(); }
    int getNumber() const { return m_number; }

private:
    std::string m_text;
    std::string m_catalogue;
    int m_number;
    FormatCallback m_format;
    void* m_context;
};

// A message that an exception carries.
class POSTWIRE_EXPORT QORMessageBase {
public:
    virtual ~QORMessageBase();

    // Zero-terminated text, good as long as the message lives.
    virtual char const* getText() const = 0;

    // A heap copy that the caller owns.
    virtual QORMessageBase* clone() const = 0;
};

// A message made of one text.
class POSTWIRE_EXPORT QORMessage : public QORMessageBase {
public:
    explicit QORMessage(I18NString const& text);
    ~QORMessage() override;

    char const* getText() const override;
    QORMessage* clone() const override;

private:
    I18NString m_text;
};

// The messages of one exception, in the order in which they were added. Copies share them.
class POSTWIRE_EXPORT QORMessageList {
public:
    std::size_t size() const { return m_messages.size(); }
    QORMessageBase const& operator[](std::size_t i) const { return *m_messages[i]; }

private:
    friend class QORException;
    std::vector<std::shared_ptr<QORMessageBase const>> m_messages;
};

// One station of a throwable on its way: where it was thrown or passed on.
struct QORBackTraceEntry {
    QORFileLocation location;
    char const* method = nullptr;  // signature of the operation, or null
    char const* macro = nullptr;   // "QOR_THROW" or "QOR_RETHROW"
};

// The stations of a throwable, oldest first.
//
// Rule: entries stand in the throwable itself, so that running out of memory can be reported
//   without any. There is room for 32, more than any path of the library makes; later ones are
//   dropped, because the oldest tell where it began.
class POSTWIRE_EXPORT QORBackTrace {
public:
    static constexpr std::size_t kCapacity = 32;

    std::size_t size() const { return m_count; }
    QORBackTraceEntry const& operator[](std::size_t i) const { return m_entries[i]; }
    QORBackTraceEntry const* begin() const { return m_entries.data(); }
    QORBackTraceEntry const* end() const { return m_entries.data() + m_count; }

private:
    friend class QORThrowable;
    std::array<QORBackTraceEntry, kCapacity> m_entries{};
    std::size_t m_count = 0;
};

// The root of everything that the core library throws. Thrown by value through hurl, so that what
// is caught has the dynamic type of what was built; caught by reference.
//
// Ownership: every text given for a location, method or macro is borrowed and must be a constant.
class POSTWIRE_EXPORT QORThrowable {
public:
    QORThrowable();
    QORThrowable(QORThrowable const&);
    QORThrowable& operator=(QORThrowable const&);
    virtual ~QORThrowable();

    // A heap copy of the same dynamic type, back-trace included; the caller owns it.
    virtual QORThrowable* clone() const;

    // Adds a back-trace entry to this object, then throws a copy of it by its dynamic type. Never
    // returns.
    [[noreturn]] virtual void hurl(QORFileLocation const& where, char const* method,
                                   char const* macro);

    // What went wrong, or null where the throwable has no text; good until the object changes.
    virtual char const* getMessage();
    virtual char const* getThrowableName() const;

    // Name, code, message and back-trace, one line each station; good until the next call.
    virtual char const* toString();
    virtual char const* getMessage() const;

    // The same into `text`: each line begins with `prefix`, lines are joined by `separator`, and at
    // most `entries` stations are named (below 0: all).
    virtual void toString(char const* prefix, char const* separator, I18NString& text, int entries);

    // Appends one entry; `method` may be null. Takes no memory.
    void addBackTrace(QORFileLocation const& where, char const* method, char const* macro);
    QORBackTrace const& getBackTrace() const { return m_backTrace; }

protected:
    // The lines of toString under a first line made by the caller.
    void describe(std::string const& headline, char const* prefix, char const* separator,
                  I18NString& text, int entries) const;

private:
    QORBackTrace m_backTrace;
    std::string m_description;  // what toString() last gave
};

// A throwable with a code, a severity and messages.
//
// Ownership: copies the texts and messages given.
class POSTWIRE_EXPORT QORException : public QORThrowable {
public:
    explicit QORException(long code);
    QORException(QORSeverity severity, long code);
    explicit QORException(char const* text);
    QORException(QORSeverity severity, char const* text);
    QORException(QORException const&);
    // All or nothing, also where memory runs out.
    QORException& operator=(QORException const&);
    ~QORException() override;

    QORException* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;

    // The plain text, else the first message's, else null.
    char const* getMessage() override;
    char const* getThrowableName() const override;
    using QORThrowable::toString;
    char const* getMessage() const override;
    void toString(char const* prefix, char const* separator, I18NString& text,
                  int entries) override;

    // Adds a copy of the message. Raises QOROutOfMemoryError, and then adds nothing.
    QORException& operator<<(QORMessageBase const& message);

    // 0 where none was given.
    long getCode() const { return m_code; }
    QORSeverity getSeverity() const { return m_severity; }
    QORMessageList const& getMessages() const { return m_messages; }

protected:
    // `text` may be null: no text.
    QORException(QORSeverity severity, long code, char const* text);

private:
    QORSeverity m_severity;
    long m_code;
    bool m_hasText;
    std::string m_text;
    QORMessageList m_messages;
};

// A broken precondition, raised by QOR_ASSERT. Input can reach some of them, so it unwinds like
// any other exception; nothing ever aborts the process.
class POSTWIRE_EXPORT QORAssertError : public QORException {
public:
    QORAssertError(long code, char const* text);
    QORAssertError(QORAssertError const&);
    QORAssertError& operator=(QORAssertError const&);
    ~QORAssertError() override;

    QORAssertError* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;

    // Builds the error with code 0 and hurls it from `where`; for QOR_ASSERT.
    [[noreturn]] static void raise(char const* text, QORFileLocation const& where);
};

// An allocation failed, or a size would pass what a length can hold.
class POSTWIRE_EXPORT QOROutOfMemoryError : public QORException {
public:
    QOROutOfMemoryError(long code, char const* text);
    QOROutOfMemoryError(QOROutOfMemoryError const&);
    QOROutOfMemoryError& operator=(QOROutOfMemoryError const&);
    ~QOROutOfMemoryError() override;

    QOROutOfMemoryError* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;
};

// An operation was called in a state that does not allow it.
class POSTWIRE_EXPORT QORIllegalStateError : public QORException {
public:
    QORIllegalStateError(long code, char const* text);
    QORIllegalStateError(QORIllegalStateError const&);
    QORIllegalStateError& operator=(QORIllegalStateError const&);
    ~QORIllegalStateError() override;

    QORIllegalStateError* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;
};

// Stands for a standard exception that escaped an allocation or a constructor; its text is what().
class POSTWIRE_EXPORT QORStdExceptionError : public QORException {
public:
    explicit QORStdExceptionError(std::exception const& cause);
    QORStdExceptionError(QORStdExceptionError const&);
    QORStdExceptionError& operator=(QORStdExceptionError const&);
    ~QORStdExceptionError() override;

    QORStdExceptionError* clone() const override;
    [[noreturn]] void hurl(QORFileLocation const& where, char const* method,
                           char const* macro) override;
    char const* getThrowableName() const override;
};

// Raises QORAssertError when the expression is false. Its text is the macro call as it stands in
// the source, closing semicolon included, and reaches callers: rewording the expression changes
// behaviour. The source file names itself in a constant kSourceFile.
#define QOR_ASSERT(expression)                                             \
    do {                                                                   \
        if (!(expression))                                                 \
            QORAssertError::raise("QOR_ASSERT(" #expression ");",          \
                                  QORFileLocation(kSourceFile, __LINE__)); \
    } while (false)
