#pragma once

#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "foundation/QORThrowable.h"

// The only `new` and `delete` of the library, and its only catch-all.

// Runs `make`, which gives an owning pointer, and turns its failures into the core library's
// throwables as raised at `where`: out of memory, a null pointer included, into
// QOROutOfMemoryError; another standard exception into QORStdExceptionError; a core throwable
// passes on with one more back-trace entry. Exceptions of other types pass unchanged.
template <class Make>
[[nodiscard]] auto guarded(QORFileLocation const& where, Make const& make) -> decltype(make()) {
    try {
        if (auto p = make()) return p;
    } catch (QORThrowable& t) {
        t.addBackTrace(where, nullptr, "QOR_RETHROW");
        throw;
    } catch (std::bad_alloc const&) {  // before std::exception, its base
        QOROutOfMemoryError(0, nullptr).hurl(where, nullptr, "QOR_THROW");
    } catch (std::exception const& e) {
        QORStdExceptionError(e).hurl(where, nullptr, "QOR_THROW");
    }
    // A class's own operator new gave null.
    QOROutOfMemoryError(0, nullptr).hurl(where, nullptr, "QOR_THROW");
}

// A new T, guarded.
template <class T, class... Args>
[[nodiscard]] std::unique_ptr<T> guardedNew(QORFileLocation const& where, Args&&... args) {
    return guarded(where, [&] { return std::unique_ptr<T>(new T(std::forward<Args>(args)...)); });
}

// n value-initialised elements, guarded.
template <class T>
[[nodiscard]] std::unique_ptr<T[]> guardedNewArray(QORFileLocation const& where, std::size_t n) {
    return guarded(where, [&] { return std::unique_ptr<T[]>(new T[n]()); });
}

// Runs a release whose failure no one could act on, and drops what it throws.
template <class Release>
void runQuietly(Release const& release) noexcept {
    try {
        release();
    } catch (...) {
    }
}

// Deletes an owned object in a destructor: the pointer is null before the deletion, so that
// nothing can delete twice, and what the deletion throws is dropped.
template <class T>
void dropQuietly(T*& p) noexcept {
    T* const owned = std::exchange(p, nullptr);
    runQuietly([owned] { delete owned; });
}
