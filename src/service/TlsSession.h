#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct ssl_st;

namespace postwire {

// What TLS made of a connection that failed, in words.
struct TlsFailure {
    std::string text;
    int systemError = 0;  // of the connection beneath; 0 where that was not the cause
    bool isEnd = false;   // the peer has closed the connection without saying so before
};

// TLS over one connected descriptor. No call waits, and none raises SIGPIPE: what the system does
// not take at once is kept, at most a record and what a handshake says at a time.
//
// Ownership: owns the session, not the descriptor.
// Raises: TlsFailure, std::bad_alloc; either ends it.
class TlsSession {
public:
    // Takes the session over; `context` is what it goes on with, and lives as long.
    TlsSession(ssl_st* session, int descriptor, std::shared_ptr<void const> context);
    TlsSession(TlsSession const&) = delete;
    TlsSession& operator=(TlsSession const&) = delete;
    ~TlsSession();

    // Goes on with the handshake; true when it is done and all it said is out. Until then it waits
    // for input, or, where hasUnsent, for room.
    bool shakeHands();
    [[nodiscard]] bool isEstablished() const { return m_established; }

    // The number of bytes; 0 when the peer has said that it sends no more, -1 when there are none
    // yet. An end without that word is a failure.
    int read(char* bytes, std::size_t size);

    // How many of the bytes were taken; 0 where those taken before are not out yet.
    std::size_t write(char const* bytes, std::size_t size);

    // Whether there may be bytes to read without a receive.
    [[nodiscard]] bool holdsInput() const;

    // Sends what is kept; true when nothing is left.
    bool flush();
    [[nodiscard]] bool hasUnsent() const { return m_sent < m_unsent.size(); }

    // Says that no more will be sent. Raises nothing.
    void close() noexcept;

    // Whether an earlier session went on.
    [[nodiscard]] bool isResumed() const;

    // "TLSv1.3".
    [[nodiscard]] std::string version() const;

    // Of the certificate that the peer has shown and that was verified, as RFC 2253 writes it;
    // empty for none.
    [[nodiscard]] std::string peerSubject() const;

    // Under which name the client's side keeps the session, to go on with it later.
    void setPeerName(std::string name) { m_peerName = std::move(name); }
    [[nodiscard]] std::string const& peerName() const { return m_peerName; }

    // What is wrong with the certificate that the peer shows.
    void noteDistrust(std::string text) { m_distrust = std::move(text); }

    // Memory ran out where OpenSSL called: the call that it serves raises std::bad_alloc, as no
    // exception may pass through OpenSSL.
    void noteLackOfMemory() { m_outOfMemory = true; }

private:
    friend struct DescriptorBio;
    struct Free {
        void operator()(ssl_st* session) const;
    };

    bool send();
    [[noreturn]] void fail(int result);

    std::shared_ptr<void const> m_context;
    std::unique_ptr<ssl_st, Free> m_session;
    int m_descriptor;
    bool m_established = false;
    bool m_failed = false;
    bool m_outOfMemory = false;
    int m_systemError = 0;  // of the last receive or send that failed
    bool m_ended = false;   // the descriptor has no more input
    std::string m_peerName;
    std::string m_distrust;  // what is wrong with the peer's certificate
    std::string m_unsent;    // from m_sent on
    std::size_t m_sent = 0;
};

}  // namespace postwire
