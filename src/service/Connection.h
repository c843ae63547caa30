#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "service/BodyChoice.h"
#include "service/Descriptor.h"
#include "service/ExchangeReport.h"
#include "service/TlsSession.h"
#include "service/WireTrace.h"

namespace postwire {

class Loop;

using Clock = std::chrono::steady_clock;

// Where a peer is. Smaller than a sockaddr_storage, as each connection holds one.
union PeerAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;

    // Without its port; empty for a socket of the file system.
    std::string host() const;
    int port() const;

    // The same for all connections of a host.
    using Key = std::array<unsigned char, sizeof(in6_addr)>;
    Key key() const noexcept;
};

// One connection of a client: its descriptor, and what has to be kept of it while no thread looks
// after it.
//
// Ownership: owns the descriptor. Made by the listener, it belongs to its loop, which alone changes
//   its state and deletes it; while it is away it belongs to the thread or lane that serves it.
struct Connection {
    enum class State {
        away,        // with a handler, or with the lane that waits for the rest of a request
        greeting,    // within the handshake of TLS
        idle,        // between requests
        partial,     // some bytes of a request have come
        writing,     // what is left of an answer waits for the peer
        discarding,  // the last answer is out: input is dropped until the peer closes
    };

    Connection(Descriptor socket, PeerAddress const& address, Loop& loop)
        : home(loop), fd(socket.release()), peer(address) {}
    Connection(Connection const&) = delete;
    Connection& operator=(Connection const&) = delete;
    ~Connection();

    // One receive that does not wait: the number of bytes, 0 at the end of the input, -1 when there
    // are none yet. A connection that was reset has ended, too.
    int receive(char* bytes, std::size_t size) noexcept;

    // One send, without SIGPIPE, that does not wait: how many of the bytes of both pieces were
    // taken, 0 when there is no room. Raises ServiceError::Code::peerGone.
    std::size_t transmit(char const* first, std::size_t firstSize, char const* second = nullptr,
                         std::size_t secondSize = 0);

    // Sends what TLS keeps; false when there is no room for it.
    bool flush() noexcept;

    // Goes on with the handshake of TLS; true when it is over, be it that the connection failed.
    bool shakeHands() noexcept;

    // The peer does not take what there is of an answer: the limits of waiting begin, once for all
    // of it.
    void beginWait(Clock::time_point now) noexcept;
    long long takenWithin() const noexcept { return taken - takenBefore; }  // that wait

    // Says that nothing more will be sent.
    void endOutput() noexcept;

    // Whether bytes are here that no event will tell of.
    bool holdsInput() const noexcept { return tls && tls->holdsInput(); }

    // Waits on the calling thread until the descriptor is readable or writable; false when the
    // moment has come before.
    bool await(short events, Clock::time_point until) const noexcept;

    // Whether the peer has closed its side.
    bool isHalfClosed() const noexcept;

    // Null for clear text.
    std::unique_ptr<TlsSession> tls;
    bool greeted = false;  // the handshake is over

    Connection* previous = nullptr;  // of the list of its state
    Connection* next = nullptr;
    Clock::time_point deadline{};  // of its state
    Loop& home;
    int fd;
    PeerAddress peer;
    State state = State::away;
    bool watched = false;  // by the loop's epoll
    // An event came that has not been looked at, or there may be bytes that came without one.
    bool pending = false;
    bool hungUp = false;      // the end of its input has come, and may not have been received yet
    bool ended = false;       // the peer will send no more
    bool failed = false;      // nothing more can be sent: it is only left to close
    bool closing = false;     // no request follows the one under way
    bool toldToGoOn = false;  // 100 was sent for the request that has begun
    int attempts = 0;         // to read that request
    int discarded = 0;        // bytes, while discarding
    std::unique_ptr<WireTrace> trace;        // where the server traces
    std::unique_ptr<ExchangeReport> report;  // of an answer that is on its way, where it is wanted
    std::shared_ptr<BodyChoice const> choice;  // for that request, once the program was asked
    Clock::time_point answerBegan{};           // to leave, where exchanges are observed
    Clock::time_point began{};                 // the request
    std::string input;  // what came of the next request: of one that has begun, from its first byte
    // Of the answer that is on its way: its rest, from `sent` on; how much of all of it the system
    // has taken; since when the peer has been waited for, and how much was taken before.
    std::string output;
    std::size_t sent = 0;
    long long taken = 0;
    Clock::time_point waitsSince{};
    long long takenBefore = 0;
    std::size_t budgeted = 0;  // of the server's budget, for `output`

private:
    int receiveTls(char* bytes, std::size_t size) noexcept;
    std::size_t transmitTls(char const* first, std::size_t firstSize, char const* second,
                            std::size_t secondSize);
};

// Connections, where they have deadlines in the order in which these end.
class ConnectionList {
public:
    bool empty() const { return m_first == nullptr; }
    Connection* front() const { return m_first; }
    void append(Connection& connection);

    // Where its deadline belongs; next to the end, as a rule.
    void insert(Connection& connection);
    void remove(Connection& connection);

    // Removes the first; null when there is none.
    Connection* take();

private:
    void putBehind(Connection* place, Connection& connection);

    Connection* m_first = nullptr;
    Connection* m_last = nullptr;
};

}  // namespace postwire
