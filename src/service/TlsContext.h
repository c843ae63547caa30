#pragma once

#include <memory>
#include <string>

#include "foundation/Export.h"

namespace postwire {

class TlsSession;

// What TLS connections have in common: certificate, key, and whom they trust. TLS 1.2 and 1.3 with
// the ciphers that the system's configuration allows, of which servers take those alone that have
// forward secrecy and authenticated encryption; the protocol "http/1.1"; and sessions that can be
// resumed.
//
// Ownership: copies share one state.
// Raises: ServiceError::Code::certificate, with the file and what is wrong with it.
// Rule: used by several threads at once.
class POSTWIRE_EXPORT TlsContext {
public:
    // Files in PEM.
    struct Server {
        std::string certificate;  // the server's first, then those up to its authority
        std::string key;          // without a password
        // Where one is named, a client has to show a certificate that one of these has issued.
        std::string clientAuthorities;
    };
    struct Client {
        std::string authorities;  // instead of those that the system trusts
        std::string certificate;  // shown to servers that ask for one
        std::string key;
        bool verifies = true;  // the server's certificate and its name
    };

    static TlsContext server(Server const& files);
    static TlsContext client();
    static TlsContext client(Client const& files);

    TlsContext(TlsContext const&);
    TlsContext& operator=(TlsContext const&);
    ~TlsContext();

    // Reads the files again, for connections to come; those that there are stay as they are. Where
    // it raises, all stays as it was.
    void reload();

    // Of one connection; for the library.
    [[nodiscard]] std::unique_ptr<TlsSession> accept(int descriptor) const;
    [[nodiscard]] std::unique_ptr<TlsSession> connect(int descriptor,
                                                      std::string const& host) const;

private:
    class State;

    explicit TlsContext(std::shared_ptr<State> state);

    std::shared_ptr<State> m_state;
};

}  // namespace postwire
