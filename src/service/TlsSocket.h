#pragma once

#include <memory>
#include <string>

#include "foundation/Export.h"

#include "service/TlsContext.h"
#include "socket/SoapSocket.h"

namespace postwire {

class TlsSession;
class WireTrace;

// A connection within TLS: what is read and written through it, here or through its two streams,
// is the clear text. It is opened, or wraps a connected descriptor, as any SoapSocket; the
// handshake takes place with the first read or write, or when it is asked for.
//
// Ownership: as of SoapSocket; the context is shared.
// Raises: SoapSocketException with SOAP_ERR_OPEN where the handshake fails, and what is wrong with
//   the peer's certificate in its details (cut as those are: whyRefused() has all of it);
//   SOAP_ERR_READ for an end of the connection that TLS did not announce, since what was read may
//   be a part only; else what SoapSocket raises.
// Rule: one thread at a time. No write raises SIGPIPE. The time-limit callback runs while the
//   handshake waits for the peer as well. Close and the destructor tell the peer that this is the
//   end.
class POSTWIRE_EXPORT TlsSocket : public SoapSocket {
public:
    // The side that connects: `host` is whom the certificate has to be for, a name or an address.
    // Give the socket the host and Open it, or wrap what is connected.
    TlsSocket(TlsContext const& context, std::string host);
    TlsSocket(TlsContext const& context, std::string host, int descriptor);

    // The side that accepted the descriptor.
    TlsSocket(TlsContext const& context, int descriptor);

    ~TlsSocket() override;

    void Close() override;
    void ReadBuffer(unsigned char* pInputBuff, int size, int* pBytesRead) override;
    void WriteBuffer(unsigned char const* pOutputBuff, int size, int* pBytesWritten) override;

    // Waits until the handshake is over; does nothing the second time.
    void shakeHands();

    // The trace of SoapSocket, which holds the clear text, and beside it in PATH.times when each
    // part of it was received and sent; its second line says that this is the text within TLS.
    void echo(char const* path);

    // "TLSv1.3"; empty before the handshake.
    [[nodiscard]] std::string version() const;

    // Whether the handshake went on with an earlier session.
    [[nodiscard]] bool isResumed() const;

    // Of the peer's certificate, where it was verified; empty for none.
    [[nodiscard]] std::string peerSubject() const;

    // Why TLS failed, in full; empty where it did not.
    [[nodiscard]] std::string const& whyRefused() const { return m_refusal; }

private:
    template <class Operation>
    auto orRaise(int id, Operation const& operation) -> decltype(operation());
    void await(short events, int id);

    TlsContext m_context;
    std::string m_peer;  // whom the certificate has to be for
    bool m_isServer;
    std::unique_ptr<TlsSession> m_session;
    std::unique_ptr<WireTrace> m_times;
    std::string m_refusal;
};

}  // namespace postwire
