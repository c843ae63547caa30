#include "service/Connector.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "service/SignalsBlocked.h"

namespace postwire {

namespace {

// RFC 8305 section 5, "Connection Attempt Delay".
constexpr std::chrono::milliseconds kHeadStart{250};
// Names that may be looked up at once, those that were given up among them.
constexpr int kMostLookups = 64;

struct Address {
    sockaddr_storage bytes{};
    socklen_t size = 0;
};

// A name, and what the system says of it. Shared by the thread that asks and the one that waits,
// as either may end first.
struct Lookup {
    std::string host;
    std::string service;
    int flags = 0;
    int error = 0;  // of getaddrinfo
    int systemError = 0;
    std::vector<Address> addresses;
    WakeUp finished;
};

std::atomic<int> lookups{0};

void lookUp(Lookup& lookup) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | lookup.flags;
    addrinfo* first = nullptr;
    lookup.error = ::getaddrinfo(lookup.host.c_str(), lookup.service.c_str(), &hints, &first);
    lookup.systemError = lookup.error == EAI_SYSTEM ? errno : 0;
    if (lookup.error != 0) return;
    std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> const all(first, ::freeaddrinfo);
    for (addrinfo const* at = first; at; at = at->ai_next) {
        Address address;
        std::memcpy(&address.bytes, at->ai_addr, at->ai_addrlen);
        address.size = at->ai_addrlen;
        lookup.addresses.push_back(address);
    }
}

// A text that is an address is looked up by nobody.
bool isAddress(Lookup& lookup) {
    lookup.flags = AI_NUMERICHOST;
    lookUp(lookup);
    lookup.flags = 0;
    return lookup.error == 0;
}

void startLookup(std::shared_ptr<Lookup> const& lookup, ExchangeWatch& watch) {
    if (lookups.fetch_add(1) >= kMostLookups) {
        lookups.fetch_sub(1);
        watch.raise(ClientError::Code::resolve, "too many names are being looked up");
    }
    SignalsBlocked const blocked;
    try {
        std::thread([lookup] {
            try {
                lookUp(*lookup);
            } catch (std::bad_alloc const&) {
                lookup->error = EAI_MEMORY;
            }
            lookup->finished.send();
            lookups.fetch_sub(1);
        }).detach();
    } catch (std::system_error const& e) {
        lookups.fetch_sub(1);
        watch.raise(ClientError::Code::resolve, "can't look up " + lookup->host, e.code().value());
    }
}

// A system of IPv4 alone has no other address for its own names either.
void resolveBySystem(std::shared_ptr<Lookup> const& lookup, ExchangeWatch& watch) {
    startLookup(lookup, watch);
    watch.await(lookup->finished.descriptor(), POLLIN);
    lookup->finished.take();  // orders what the thread has written before this
    if (lookup->error == 0) return;
    char const* const reason = lookup->error == EAI_SYSTEM ? "" : ::gai_strerror(lookup->error);
    std::string const text = "the name " + lookup->host + " can't be resolved";
    watch.raise(ClientError::Code::resolve, *reason ? text + ": " + reason : text,
                lookup->systemError);
}

std::vector<Address> resolve(std::string const& host, int port, ClientOptions const& options,
                             ExchangeWatch& watch) {
    auto const lookup = std::make_shared<Lookup>();
    lookup->host = host;
    lookup->service = std::to_string(port);
    if (isAddress(*lookup)) return lookup->addresses;
    if (!options.resolve) {
        resolveBySystem(lookup, watch);
        return lookup->addresses;
    }
    for (std::string const& text : options.resolve(host)) {
        lookup->host = text;
        if (!isAddress(*lookup))
            watch.raise(ClientError::Code::resolve,
                        std::string("not an address of ").append(host).append(": ").append(text));
    }
    if (lookup->addresses.empty())
        watch.raise(ClientError::Code::resolve, "the name " + host + " has no address");
    return lookup->addresses;
}

// The families in turn, beginning with that of the first address, RFC 8305 section 4.
std::vector<Address> interleaved(std::vector<Address> const& addresses) {
    std::vector<Address> first, other, all;
    for (Address const& address : addresses)
        (address.bytes.ss_family == addresses.front().bytes.ss_family ? first : other)
            .push_back(address);
    for (std::size_t i = 0; i < std::max(first.size(), other.size()); ++i) {
        if (i < first.size()) all.push_back(first[i]);
        if (i < other.size()) all.push_back(other[i]);
    }
    return all;
}

// The attempts to connect to one host.
class Attempts {
public:
    Attempts(std::vector<Address> addresses, ExchangeWatch& watch)
        : m_addresses(std::move(addresses)), m_watch(watch) {}

    // A connected descriptor, or none when all have failed.
    Descriptor run() {
        for (;;) {
            if (m_open.empty() && m_next == m_addresses.size()) return Descriptor();
            bool const mayStart = m_next < m_addresses.size();
            if (mayStart && (m_open.empty() || Clock::now() >= m_nextStart)) {
                start();
                continue;
            }
            std::vector<pollfd> sockets;
            for (Descriptor const& open : m_open) sockets.push_back({open.get(), POLLOUT, 0});
            if (!m_watch.await(sockets.data(), sockets.size(),
                               mayStart ? m_nextStart : Clock::time_point::max()))
                continue;
            for (std::size_t i = sockets.size(); i-- > 0;)
                if (sockets[i].revents != 0 && hasConnected(i)) return std::move(m_open[i]);
        }
    }

    [[nodiscard]] int error() const { return m_error; }

private:
    using Clock = ExchangeWatch::Clock;

    // One that fails at once is not waited for.
    void start() {
        Address const& address = m_addresses[m_next++];
        m_nextStart = Clock::now() + kHeadStart;
        Descriptor socket(
            ::socket(address.bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (socket.get() == -1) return fail(errno);
        auto const* const to = reinterpret_cast<sockaddr const*>(&address.bytes);
        if (::connect(socket.get(), to, address.size) != 0 && errno != EINPROGRESS &&
            errno != EINTR)
            return fail(errno);
        m_open.push_back(std::move(socket));
    }

    bool hasConnected(std::size_t index) {
        int error = 0;
        socklen_t size = sizeof error;
        ::getsockopt(m_open[index].get(), SOL_SOCKET, SO_ERROR, &error, &size);
        if (error == 0) return true;
        m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(index));
        fail(error);
        return false;
    }

    void fail(int error) {
        m_error = error;
        m_nextStart = {};
    }

    std::vector<Address> const m_addresses;
    ExchangeWatch& m_watch;
    std::vector<Descriptor> m_open;
    std::size_t m_next = 0;
    Clock::time_point m_nextStart{};
    int m_error = 0;
};

}  // namespace

Descriptor connectTo(std::string const& host, int port, ClientOptions const& options,
                     ExchangeWatch& watch) {
    Attempts attempts(interleaved(resolve(host, port, options, watch)), watch);
    Descriptor socket = attempts.run();
    if (socket.get() == -1)
        watch.raise(ClientError::Code::connect,
                    "can't connect to " + host + " port " + std::to_string(port), attempts.error());
    int const one = 1;
    ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return socket;
}

}  // namespace postwire
