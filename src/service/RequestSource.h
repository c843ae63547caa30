#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "foundation/ZULInputStream.h"

#include "service/Connection.h"

namespace postwire {

// What a reader does where the bytes of a request have not come yet.
class InputWait {
public:
    virtual ~InputWait();

    // Returns when the connection may have input; raises TimeLimitPassed. `inHead` while the head
    // of the request is not complete.
    virtual void wait(Connection& connection, bool inHead) = 0;
};

struct TimeLimitPassed {};

// The bytes of one request: those that the connection holds already, then what it receives.
//
// Raises: NotHere where it is not to wait and no more is here; TooLarge beyond the limit; what the
//   wait raises.
class RequestSource : public ZULInputStream {
public:
    struct NotHere {};
    struct TooLarge {};

    // What can come without a wait.
    static constexpr std::size_t kWindow = 65536;

    // Without a wait it gives what has come. False when there is nothing to read: line ends in
    // front of the request are dropped, as they do not begin one, RFC 9112 section 2.2.
    bool begin(Connection& connection, InputWait* wait);

    using ZULInputStream::read;
    int read(char* bytes, int n) override;

    // Whether it waits at all: as begin was told, until then.
    void allowReceiving(bool allowed) { m_receives = allowed; }

    // What is received of a head stays with the connection, for another attempt.
    void keepHead() { m_keepsHead = true; }
    [[nodiscard]] bool isInHead() const { return m_inHead; }
    void endHead() { m_inHead = false; }

    // From here on no more than that.
    void limit(long long bytes) { m_left = bytes; }

    // Nothing was received.
    void forget() { m_received = 0; }

    // Of the request, replayed ones among them.
    [[nodiscard]] long long received() const { return m_received; }

    // The request was read but for these last bytes that this has given: they and what stands
    // behind them are the connection's again.
    void endAt(std::string_view unread);

    // It was not read: what came without a wait is the connection's again.
    void giveUp();

private:
    int give(char* bytes, std::size_t room);
    bool beginWindow();
    void receiveWindow();

    Connection* m_connection = nullptr;
    InputWait* m_wait = nullptr;
    std::unique_ptr<char[]> m_window;
    std::size_t m_begin = 0;  // of the request
    std::size_t m_at = 0;     // in the window, or with a wait in the connection's input
    std::size_t m_end = 0;    // of the window
    bool m_receives = false;
    bool m_keepsHead = false;
    bool m_inHead = true;
    long long m_received = 0;
    long long m_left = 0;
};

}  // namespace postwire
