#include "service/ExchangeWatch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <vector>

namespace postwire {

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kGrace{10};  // before the rate is looked at
constexpr std::chrono::seconds kTick{1};
constexpr std::uint64_t kBlock = 65536;  // between two calls of whoever observes

std::string secondsOf(milliseconds limit) {
    std::string text = std::to_string(limit.count() / 1000);
    if (long long const rest = limit.count() % 1000; rest != 0)
        text += "." + std::to_string(1000 + rest).substr(1);
    return text + " s";
}

}  // namespace

ExchangeWatch::ExchangeWatch(ClientOptions const& client, PostOptions const& call)
    : m_client(client),
      m_call(call),
      m_began(Clock::now()),
      m_exchangeEnd(m_began + call.limit.value_or(client.exchangeLimit)),
      m_stageEnd(m_began + client.connectLimit),
      m_stageBegan(m_began) {}

void ExchangeWatch::enter(Stage stage) {
    m_stage = stage;
    m_stageBytes = 0;
    m_stageEnd = Clock::time_point::max();
    if (stage == Stage::connecting) m_stageEnd = m_began + m_client.connectLimit;
    if (stage == Stage::connecting) return;
    m_stageBegan = Clock::now();
    if (stage == Stage::awaitingAnswer) m_stageEnd = m_stageBegan + m_client.headLimit;
}

bool ExchangeWatch::await(pollfd* sockets, std::size_t count, Clock::time_point wake) {
    std::array<pollfd, 2> few{};
    std::vector<pollfd> many;
    pollfd* all = few.data();
    if (count >= few.size()) {
        many.resize(count + 1);
        all = many.data();
    }
    std::copy_n(sockets, count, all);
    std::size_t const n = count + (m_call.cancellation ? 1 : 0);
    if (m_call.cancellation) all[count] = {m_call.cancellation->descriptor(), POLLIN, 0};
    bool const isRated = m_client.lowestRate > 0 && m_stage != Stage::connecting;
    for (;;) {
        Clock::time_point const now = Clock::now();
        check(now);
        if (now >= wake) return false;
        Clock::time_point next = std::min({wake, m_stageEnd, m_exchangeEnd});
        if (isRated)
            next = std::min<Clock::time_point>(next, std::max(now, m_stageBegan + kGrace) + kTick);
        auto const left = std::chrono::ceil<milliseconds>(next - now).count();
        int const ready = ::poll(all, n, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (ready < 0 && errno != EINTR && errno != EAGAIN)
            raise(ClientError::Code::receive, "can't wait for the connection", errno);
        if (ready <= 0) continue;
        if (m_call.cancellation && all[count].revents != 0)
            raise(ClientError::Code::cancelled, "the exchange was cancelled");
        std::copy_n(all, count, sockets);
        return true;
    }
}

short ExchangeWatch::await(int descriptor, short events) {
    pollfd socket{descriptor, events, 0};
    await(&socket, 1);
    return socket.revents;
}

void ExchangeWatch::check(Clock::time_point now) const {
    if (now >= m_stageEnd || now >= m_exchangeEnd) raiseLate(now);
    if (!isTooSlow(now)) return;
    raise(ClientError::Code::time, m_stage == Stage::sending
                                       ? "the server takes the message too slowly"
                                       : "the server gives its answer too slowly");
}

bool ExchangeWatch::isTooSlow(Clock::time_point now) const {
    if (m_stage != Stage::sending && m_stage != Stage::receiving) return false;
    auto const elapsed = std::chrono::duration_cast<milliseconds>(now - m_stageBegan);
    return m_client.lowestRate > 0 && elapsed >= kGrace &&
           m_stageBytes < static_cast<std::uint64_t>(m_client.lowestRate) *
                              static_cast<std::uint64_t>(elapsed.count()) / 1000;
}

void ExchangeWatch::raiseLate(Clock::time_point now) const {
    if (now >= m_exchangeEnd)
        raise(ClientError::Code::time,
              "no complete answer within the time limit of " +
                  secondsOf(m_call.limit.value_or(m_client.exchangeLimit)));
    if (m_stage == Stage::connecting)
        raise(ClientError::Code::time,
              "no connection within the time limit of " + secondsOf(m_client.connectLimit));
    raise(ClientError::Code::time,
          "no answer within the time limit of " + secondsOf(m_client.headLimit));
}

void ExchangeWatch::sent(std::size_t bytes) {
    if (bytes > 0) m_sent = ClientError::Sent::something;
    m_bytesSent += bytes;
    m_stageBytes += bytes;
}

// Looked at here too: a peer that always has a byte never lets the exchange wait.
void ExchangeWatch::received(std::size_t bytes) {
    m_progress.received += bytes;
    m_stageBytes += bytes;
    if (m_stage == Stage::receiving) check(Clock::now());
    tell(m_progress.sent, m_progress.allSent);
}

void ExchangeWatch::tell(std::uint64_t bodySent, bool allSent) {
    bool const news = allSent != m_progress.allSent;
    m_progress.sent = bodySent;
    m_progress.allSent = allSent;
    std::uint64_t const moved = bodySent + m_progress.received;
    if (!m_call.progress || (!news && moved < m_told + kBlock)) return;
    m_told = moved;
    m_call.progress(m_progress);
}

void ExchangeWatch::raise(ClientError::Code code, std::string const& text, int systemError,
                          int status) const {
    throw ClientError(code, text, m_sent, systemError, status);
}

}  // namespace postwire
