#pragma once

#include <memory>
#include <string>

#include "foundation/QORThrowable.h"

// What a stream raises where a test lets it fail: a QORException of this code.
constexpr long kStreamFailure = 4711;
[[noreturn]] inline void failStream() {
    QORException(kStreamFailure).hurl(QORFileLocation("test", 0), nullptr, "QOR_THROW");
}

// What a call raised from the core library, or null; other exceptions pass.
template <class Call>
std::unique_ptr<QORThrowable> raised(Call const& call) {
    try {
        call();
    } catch (QORThrowable const& t) {
        return std::unique_ptr<QORThrowable>(t.clone());
    }
    return nullptr;
}

// Its code; 0: nothing was raised, -1: a throwable without a code.
template <class Call>
long raisedCode(Call const& call) {
    auto const t = raised(call);
    if (!t) return 0;
    auto const* const e = dynamic_cast<QORException const*>(t.get());
    return e && e->getCode() != 0 ? e->getCode() : -1;
}

// The message of a throwable, or its name where it has none.
inline std::string textOf(QORThrowable const& t) {
    return t.getMessage() ? t.getMessage() : t.getThrowableName();
}

// The same of what was raised; empty: nothing was.
template <class Call>
std::string raisedText(Call const& call) {
    auto const t = raised(call);
    return t ? textOf(*t) : "";
}

// One line a station, oldest first: macro, source file, and the method where there is one.
inline std::string backTraceText(QORThrowable const& t) {
    std::string text;
    for (QORBackTraceEntry const& e : t.getBackTrace()) {
        text += std::string(e.macro) + ' ' + e.location.getFileName();
        if (e.method) text += std::string(" ") + e.method;
        text += '\n';
    }
    return text;
}
template <class Call>
std::string raisedBackTrace(Call const& call) {
    auto const t = raised(call);
    return t ? backTraceText(*t) : "";
}
