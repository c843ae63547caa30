#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "service/Descriptor.h"
#include "service/ExchangeWatch.h"
#include "service/TlsSession.h"
#include "service/WireTrace.h"

namespace postwire {

class TlsContext;

// The connection of a client, with TLS or without: its reads and writes wait within the limits of
// the exchange that uses it, and never raise SIGPIPE.
//
// Ownership: owns its descriptor; the watch is borrowed.
// Raises: what the watch raises, Code::send and Code::receive among it.
class ClientSocket {
public:
    explicit ClientSocket(Descriptor connected) : m_descriptor(std::move(connected)) {}
    ClientSocket(ClientSocket const&) = delete;
    ClientSocket& operator=(ClientSocket const&) = delete;
    ~ClientSocket();

    // Whose limits hold from now on.
    void use(ExchangeWatch& watch) { m_watch = &watch; }

    // Of what is sent and received from now on.
    void traceInto(WireTrace trace) { m_trace.emplace(std::move(trace)); }
    [[nodiscard]] int traceError() const { return m_trace ? m_trace->error() : 0; }

    // Sends what is no part of a message. Raises Code::connect.
    void sayToProxy(std::string const& text);

    // Raises Code::tls.
    void startTls(TlsContext const& context, std::string const& host);

    // Without a wait: -1 when nothing is here, 0 at the end.
    int tryRead(char* bytes, std::size_t size);

    // Waits for the first byte; 0 at the end.
    int read(char* bytes, std::size_t size);

    // Without a wait: how many were taken.
    std::size_t trySend(char const* bytes, std::size_t size);

    // Sends what TLS keeps.
    void flush();

    // Waits until there may be input.
    void awaitInput();

    // Waits until there is room, or input.
    void awaitRoom() { m_watch->await(m_descriptor.get(), POLLIN | POLLOUT); }

    // Whether the server has closed it, or said something that nobody asked for.
    [[nodiscard]] bool isStale() noexcept;

    [[nodiscard]] int descriptor() const { return m_descriptor.get(); }

private:
    Descriptor m_descriptor;
    ExchangeWatch* m_watch = nullptr;
    std::unique_ptr<TlsSession> m_tls;
    std::optional<WireTrace> m_trace;
};

}  // namespace postwire
