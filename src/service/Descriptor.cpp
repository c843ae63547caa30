#include "service/Descriptor.h"

#include <cerrno>

#include <sys/epoll.h>
#include <sys/eventfd.h>

#include "service/ServiceError.h"

namespace postwire {

namespace {

Descriptor required(int fd, char const* text) {
    if (fd == -1) throw ServiceError(ServiceError::Code::system, text, errno);
    return Descriptor(fd);
}

}  // namespace

WakeUp::WakeUp()
    : m_event(required(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "can't make an event")) {}

void WakeUp::send() const noexcept {
    int const before = errno;
    std::uint64_t const one = 1;
    [[maybe_unused]] ssize_t const n = ::write(m_event.get(), &one, sizeof one);
    errno = before;
}

void WakeUp::take() const noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t const n = ::read(m_event.get(), &count, sizeof count);
}

Descriptor makeEpoll() { return required(::epoll_create1(EPOLL_CLOEXEC), "can't make an epoll"); }

bool watch(Descriptor const& epoll, int fd, std::uint32_t events, void* what) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = what;
    return ::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, fd, &event) == 0;
}

}  // namespace postwire
