#include "support/SystemCallFaults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Step {
    std::string call;
    int first, last;  // of the calls of that name, from 1
    int error, value;
};

struct Script {
    std::vector<Step> steps;
    std::vector<std::string> calls;
};
thread_local Script* t_script = nullptr;

// 0: the text is no error's name.
int errorNumber(std::string const& name) {
    for (int error = 1; error < 134; ++error)
        if (char const* known = strerrorname_np(error); known && name == known) return error;
    return 0;
}

// call[@n]=result[*times]
Step parsed(std::string const& word) {
    std::size_t const equals = word.find('='), at = std::min(word.find('@'), equals);
    std::size_t const star = std::min(word.find('*'), word.size());
    std::string const result = word.substr(equals + 1, star - equals - 1);
    int const first = at == equals ? 1 : std::stoi(word.substr(at + 1));
    int const times = star == word.size() ? 1 : std::stoi(word.substr(star + 1));
    int const error = errorNumber(result);
    return {word.substr(0, at), first, first + times - 1, error, error ? -1 : std::stoi(result)};
}

template <class Real>
auto scripted(char const* call, Real const& real, std::size_t* room = nullptr) -> decltype(real()) {
    if (!t_script) return real();
    t_script->calls.emplace_back(call);
    auto const n = std::count(t_script->calls.begin(), t_script->calls.end(), call);
    for (Step const& s : t_script->steps)
        if (s.call == call && s.first <= n && n <= s.last) {
            if (room && !s.error) *room = std::min(*room, static_cast<std::size_t>(s.value));
            if (room && !s.error) return real();
            errno = s.error;
            return s.value;
        }
    return real();
}

}  // namespace

SystemCallFaults::SystemCallFaults(std::string const& script) {
    static thread_local Script s_script;
    s_script = {};
    std::istringstream words(script);
    for (std::string word; words >> word;) s_script.steps.push_back(parsed(word));
    t_script = &s_script;
}

SystemCallFaults::~SystemCallFaults() { t_script = nullptr; }

std::string SystemCallFaults::log() {
    std::string text;
    auto const& calls = t_script->calls;
    for (auto i = calls.begin(); i != calls.end();) {
        auto const next = std::find_if(i, calls.end(), [i](auto const& c) { return c != *i; });
        text += (text.empty() ? "" : " ") + *i;
        if (next - i > 1) text += "*" + std::to_string(next - i);
        i = next;
    }
    return text;
}

// The linker sends the calls in our own objects to __wrap_..., and gives the system's as __real_...
#define WRAP_CALL(result, call, parameters, arguments, room)       \
    extern "C" result __real_##call parameters;                    \
    extern "C" result __wrap_##call parameters;                    \
    result __wrap_##call parameters {                              \
        return scripted(                                           \
            #call, [&] { return __real_##call arguments; }, room); \
    }
WRAP_CALL(int, socket, (int family, int type, int protocol), (family, type, protocol), nullptr)
WRAP_CALL(int, connect, (int fd, sockaddr const* a, socklen_t n), (fd, a, n), nullptr)
WRAP_CALL(int, bind, (int fd, sockaddr const* a, socklen_t n), (fd, a, n), nullptr)
WRAP_CALL(int, getsockname, (int fd, sockaddr* a, socklen_t* n), (fd, a, n), nullptr)
WRAP_CALL(int, listen, (int fd, int backlog), (fd, backlog), nullptr)
WRAP_CALL(int, accept, (int fd, sockaddr* a, socklen_t* n), (fd, a, n), nullptr)
WRAP_CALL(int, poll, (pollfd * fds, nfds_t n, int timeout), (fds, n, timeout), nullptr)
WRAP_CALL(ssize_t, recv, (int fd, void* to, std::size_t n, int flags), (fd, to, n, flags), &n)
WRAP_CALL(ssize_t, send, (int fd, void const* p, std::size_t n, int flags), (fd, p, n, flags), &n)
WRAP_CALL(int, shutdown, (int fd, int how), (fd, how), nullptr)
WRAP_CALL(int, close, (int fd), (fd), nullptr)
WRAP_CALL(int, gethostname, (char* name, std::size_t n), (name, n), nullptr)
WRAP_CALL(int, setsockopt, (int fd, int level, int option, void const* value, socklen_t n),
          (fd, level, option, value, n), nullptr)

// Only commands whose argument is an int are used. Where file sizes have 64 bits on a 32-bit
// system, fcntl goes by another name.
extern "C" int __real_fcntl64(int fd, int command, ...);
extern "C" int __wrap_fcntl64(int fd, int command, ...);
extern "C" int __wrap_fcntl(int fd, int command, ...) __attribute__((alias("__wrap_fcntl64")));
int __wrap_fcntl64(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    int const argument = va_arg(arguments, int);
    va_end(arguments);
    return scripted("fcntl", [&] { return __real_fcntl64(fd, command, argument); });
}
