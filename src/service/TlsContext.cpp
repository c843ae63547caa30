#include "service/TlsContext.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "service/ServiceError.h"
#include "service/TlsSession.h"
#include "service/TlsVerification.h"

namespace postwire {

namespace {

// As ALPN writes it, RFC 7301 section 3.1.
constexpr std::string_view kProtocol("\x08http/1.1", 9);
constexpr std::size_t kMostSessions = 256;  // of servers, kept by a client

struct FreeContext {
    void operator()(SSL_CTX* context) const { ::SSL_CTX_free(context); }
};
struct FreeSession {
    void operator()(SSL_SESSION* session) const { ::SSL_SESSION_free(session); }
};
using Context = std::unique_ptr<SSL_CTX, FreeContext>;
using Resumption = std::unique_ptr<SSL_SESSION, FreeSession>;

[[noreturn]] void refuse(std::string const& what, std::string const& file) {
    unsigned long const error = ::ERR_peek_last_error();
    char const* const reason = ::ERR_reason_error_string(error);
    std::string text = what + " " + file;
    if (!ERR_SYSTEM_ERROR(error) && reason) text.append(": ").append(reason);
    ::ERR_clear_error();
    throw ServiceError(ServiceError::Code::certificate, text,
                       ERR_SYSTEM_ERROR(error) ? ERR_GET_REASON(error) : 0);
}

void require(int result, std::string const& what, std::string const& file) {
    if (result != 1) refuse(what, file);
}

// No one is asked for a password.
int noPassword(char*, int, int, void*) { return 0; }

int chooseProtocol(SSL*, unsigned char const** chosen, unsigned char* size,
                   unsigned char const* offered, unsigned int offeredSize, void*) {
    auto const* const ours = reinterpret_cast<unsigned char const*>(kProtocol.data());
    unsigned char* found = nullptr;
    int const result =
        ::SSL_select_next_proto(&found, size, ours, kProtocol.size(), offered, offeredSize);
    if (result != OPENSSL_NPN_NEGOTIATED) return SSL_TLSEXT_ERR_ALERT_FATAL;
    *chosen = found;
    return SSL_TLSEXT_ERR_OK;
}

Context makeContext(SSL_METHOD const* method) {
    ::ERR_clear_error();
    Context context(::SSL_CTX_new(method));
    if (!context) refuse("can't begin with TLS", "");
    SSL_CTX* const raw = context.get();
    // The system may ask for more, never for less.
    if (SSL_CTX_get_min_proto_version(raw) < TLS1_2_VERSION)
        SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION);
    SSL_CTX_set_options(raw, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION);
    // A connection that waits holds no buffers of records.
    SSL_CTX_set_mode(raw, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_read_ahead(raw, 1);
    ::SSL_CTX_set_default_passwd_cb(raw, noPassword);
    return context;
}

void useCertificate(SSL_CTX* context, std::string const& certificate, std::string const& key) {
    require(::SSL_CTX_use_certificate_chain_file(context, certificate.c_str()), "no certificate in",
            certificate);
    require(::SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM), "no key in",
            key);
    require(::SSL_CTX_check_private_key(context), "the certificate is not of the key in", key);
}

// Of what the system's policy allows for TLS 1.2, the suites whose keys are made for the session
// alone and that seal what they encrypt, RFC 9325 section 4.2. A policy without any stays as it is.
void dropWeakCiphers(SSL_CTX* context) {
    std::string strong;
    STACK_OF(SSL_CIPHER) const* const allowed = ::SSL_CTX_get_ciphers(context);
    for (int i = 0; i < sk_SSL_CIPHER_num(allowed); ++i) {
        SSL_CIPHER const* const cipher = sk_SSL_CIPHER_value(allowed, i);
        int const exchange = ::SSL_CIPHER_get_kx_nid(cipher);
        if ((exchange == NID_kx_ecdhe || exchange == NID_kx_dhe) && ::SSL_CIPHER_is_aead(cipher))
            strong.append(strong.empty() ? "" : ":").append(::SSL_CIPHER_get_name(cipher));
    }
    if (!strong.empty()) ::SSL_CTX_set_cipher_list(context, strong.c_str());
}

Context makeServer(TlsContext::Server const& files) {
    Context context = makeContext(::TLS_server_method());
    SSL_CTX* const raw = context.get();
    dropWeakCiphers(raw);
    useCertificate(raw, files.certificate, files.key);
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);  // tickets hold all that there is
    ::SSL_CTX_set_alpn_select_cb(raw, chooseProtocol, nullptr);
    auto const* const name = reinterpret_cast<unsigned char const*>("postwire");
    ::SSL_CTX_set_session_id_context(raw, name, 8);
    if (files.clientAuthorities.empty()) return context;
    char const* const file = files.clientAuthorities.c_str();
    require(::SSL_CTX_load_verify_file(raw, file), "no authorities in", file);
    ::SSL_CTX_set_client_CA_list(raw, ::SSL_load_client_CA_file(file));
    ::SSL_CTX_set_verify(raw, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, noteVerification);
    return context;
}

Context makeClient(TlsContext::Client const& files) {
    Context context = makeContext(::TLS_client_method());
    SSL_CTX* const raw = context.get();
    auto const* const protocol = reinterpret_cast<unsigned char const*>(kProtocol.data());
    ::SSL_CTX_set_alpn_protos(raw, protocol, kProtocol.size());
    if (!files.certificate.empty())
        useCertificate(raw, files.certificate, files.key.empty() ? files.certificate : files.key);
    if (!files.authorities.empty())
        require(::SSL_CTX_load_verify_file(raw, files.authorities.c_str()), "no authorities in",
                files.authorities);
    else
        require(::SSL_CTX_set_default_verify_paths(raw), "can't read", "the system's authorities");
    if (files.verifies) ::SSL_CTX_set_verify(raw, SSL_VERIFY_PEER, noteVerification);
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    return context;
}

// What resumes sessions outlives a change of certificates, but for those of clients: they have to
// be judged anew.
void keepTicketKeys(SSL_CTX* from, SSL_CTX* to) {
    std::array<unsigned char, 256> keys{};
    long const size = SSL_CTX_get_tlsext_ticket_keys(from, nullptr, 0);
    if (size <= 0 || static_cast<std::size_t>(size) > keys.size()) return;
    if (SSL_CTX_get_tlsext_ticket_keys(from, keys.data(), size) == 1)
        SSL_CTX_set_tlsext_ticket_keys(to, keys.data(), size);
}

bool isAddress(std::string const& host) {
    in6_addr address{};
    return ::inet_pton(AF_INET, host.c_str(), &address) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

}  // namespace

class TlsContext::State {
public:
    explicit State(Server files) : m_isServer(true), m_server(std::move(files)) { load(); }
    explicit State(Client files) : m_isServer(false), m_client(std::move(files)) { load(); }

    void load() {
        Context context = m_isServer ? makeServer(m_server) : makeClient(m_client);
        SSL_CTX_set_app_data(context.get(), this);
        if (!m_isServer) ::SSL_CTX_sess_set_new_cb(context.get(), &State::keep);
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (m_context && m_isServer && m_server.clientAuthorities.empty())
            keepTicketKeys(m_context.get(), context.get());
        m_context.swap(context);
        m_resumptions.clear();
    }

    SSL* makeSession() {
        ::ERR_clear_error();
        std::lock_guard<std::mutex> const lock(m_mutex);
        SSL* const session = ::SSL_new(m_context.get());
        if (!session) throw std::bad_alloc();
        return session;
    }

    // The last session with the host, if there was one.
    void resume(SSL* session, std::string const& host) {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const found = m_resumptions.find(host);
        if (found != m_resumptions.end()) ::SSL_set_session(session, found->second.get());
    }

    [[nodiscard]] bool verifies() const { return m_client.verifies; }

private:
    // Of TLS 1.3 a session comes when the handshake is over.
    static int keep(SSL* session, SSL_SESSION* given) {
        auto* const self = static_cast<State*>(SSL_CTX_get_app_data(::SSL_get_SSL_CTX(session)));
        auto const* const connection = static_cast<TlsSession const*>(SSL_get_app_data(session));
        std::lock_guard<std::mutex> const lock(self->m_mutex);
        if (self->m_resumptions.size() >= kMostSessions) self->m_resumptions.clear();
        try {
            self->m_resumptions[connection->peerName()].reset(given);
        } catch (std::bad_alloc const&) {
            return 0;  // the next handshake is a full one
        }
        return 1;
    }

    bool const m_isServer;
    Server const m_server;
    Client const m_client;
    std::mutex m_mutex;
    Context m_context;
    std::map<std::string, Resumption> m_resumptions;
};

TlsContext::TlsContext(std::shared_ptr<State> state) : m_state(std::move(state)) {}
TlsContext::TlsContext(TlsContext const&) = default;
TlsContext& TlsContext::operator=(TlsContext const&) = default;
TlsContext::~TlsContext() = default;

TlsContext TlsContext::server(Server const& files) {
    return TlsContext(std::make_shared<State>(files));
}

TlsContext TlsContext::client() { return client(Client()); }

TlsContext TlsContext::client(Client const& files) {
    return TlsContext(std::make_shared<State>(files));
}

void TlsContext::reload() { m_state->load(); }

std::unique_ptr<TlsSession> TlsContext::accept(int descriptor) const {
    SSL* const session = m_state->makeSession();
    ::SSL_set_accept_state(session);
    return std::make_unique<TlsSession>(session, descriptor, m_state);
}

// An address is no server name, RFC 6066 section 3.
std::unique_ptr<TlsSession> TlsContext::connect(int descriptor, std::string const& host) const {
    SSL* const session = m_state->makeSession();
    auto result = std::make_unique<TlsSession>(session, descriptor, m_state);
    ::SSL_set_connect_state(session);
    std::string name = host;
    while (!name.empty() && name.back() == '.') name.pop_back();
    X509_VERIFY_PARAM* const wanted = ::SSL_get0_param(session);
    if (isAddress(name)) {
        ::X509_VERIFY_PARAM_set1_ip_asc(wanted, name.c_str());
    } else {
        // What SSL_set_tlsext_host_name stands for, without its cast.
        ::SSL_ctrl(session, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, name.data());
        ::X509_VERIFY_PARAM_set_hostflags(wanted, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
        ::X509_VERIFY_PARAM_set1_host(wanted, name.c_str(), 0);
    }
    m_state->resume(session, name);
    result->setPeerName(std::move(name));
    return result;
}

}  // namespace postwire
