#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "foundation/Export.h"
#include "foundation/QORThrowable.h"

#include "socket/SoapSocket.h"

namespace postwire {

// What the library has raised, as an exception of the standard library.
class POSTWIRE_EXPORT LibraryError : public std::runtime_error {
public:
    explicit LibraryError(QORThrowable const& raised);
    explicit LibraryError(SoapSocketException& raised);
    explicit LibraryError(char const* raised);
    LibraryError(LibraryError const&) noexcept;
    LibraryError& operator=(LibraryError const&) noexcept;
    ~LibraryError() override;

    // Of the HTTPException, the ZULStreamException or the SoapSocketException that it was; else 0.
    [[nodiscard]] long code() const noexcept { return m_code; }

    // The errno of a socket's failure; else 0.
    [[nodiscard]] int systemError() const noexcept { return m_systemError; }

    // "file:line" of each station that it passed, the first first, with blanks between them.
    [[nodiscard]] std::string const& trace() const noexcept { return *m_trace; }

private:
    std::shared_ptr<std::string const> m_trace;  // copies must not raise
    long m_code = 0;
    int m_systemError = 0;
};

// Gives what f gives; what the library raises within is raised as a LibraryError, so that one
// `catch (std::exception const&)` serves for all.
template <class F>
decltype(auto) raisingStdExceptions(F&& f) {
    try {
        return std::forward<F>(f)();
    } catch (QORThrowable const& raised) {
        throw LibraryError(raised);
    } catch (SoapSocketException& raised) {
        throw LibraryError(raised);
    } catch (char const* const& raised) {  // as ZULInputStream::unread does
        throw LibraryError(raised);
    }
}

}  // namespace postwire
