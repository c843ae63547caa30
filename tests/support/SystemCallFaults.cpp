#include "support/SystemCallFaults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Step {
    std::string call;
    long first, last;  // of the calls of that name, from 1
    int error, value;
};

// 0: the text is no error's name.
int errorNumber(std::string const& name) {
    for (int error = 1; error < 134; ++error)
        if (char const* known = strerrorname_np(error); known && name == known) return error;
    return 0;
}

std::vector<Step> s_steps;  // of the one script at a time
std::vector<std::string> s_calls;
thread_local bool t_scripted = false;

template <class Real>
auto scripted(char const* call, Real const& real, std::size_t* room = nullptr) -> decltype(real()) {
    if (!t_scripted) return real();
    s_calls.emplace_back(call);
    long const n = std::count(s_calls.begin(), s_calls.end(), call);
    for (Step const& s : s_steps) {
        if (s.call != call || n < s.first || n > s.last) continue;
        errno = s.error;
        if (s.error || !room) return s.value;
        *room = std::min(*room, static_cast<std::size_t>(s.value));
    }
    return real();
}

}  // namespace

SystemCallFaults::SystemCallFaults(std::string const& script) {
    s_steps.clear();
    s_calls.clear();
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        char call[32], result[32];
        long first = 1, times = 1;
        if (std::sscanf(word.c_str(), "%31[a-z]=%31[^*]*%ld", call, result, &times) < 2)
            std::sscanf(word.c_str(), "%31[a-z]@%ld=%31[^*]*%ld", call, &first, result, &times);
        int const error = errorNumber(result);
        s_steps.push_back({call, first, first + times - 1, error, error ? -1 : std::stoi(result)});
    }
    t_scripted = true;
}

SystemCallFaults::~SystemCallFaults() { t_scripted = false; }

std::string SystemCallFaults::log() {
    std::string text;
    for (auto i = s_calls.begin(); i != s_calls.end();) {
        auto const next = std::find_if(i, s_calls.end(), [i](auto const& c) { return c != *i; });
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
