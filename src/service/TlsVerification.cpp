#include "service/TlsVerification.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "service/TlsSession.h"

namespace postwire {

namespace {

struct FreeBio {
    void operator()(BIO* bio) const { ::BIO_free(bio); }
};
struct FreeNames {
    void operator()(GENERAL_NAMES* names) const { ::GENERAL_NAMES_free(names); }
};

// Bytes that a terminal or a log could take for something else are escaped.
std::string nameText(X509_NAME const* name) {
    std::unique_ptr<BIO, FreeBio> const text(::BIO_new(BIO_s_mem()));
    if (!text || ::X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253) < 0) return "?";
    char* bytes = nullptr;
    long const size = BIO_get_mem_data(text.get(), &bytes);
    return size > 0 ? std::string(bytes, static_cast<std::size_t>(size)) : "nobody";
}

std::string timeText(ASN1_TIME const* time) {
    std::tm utc{};
    if (!time || ::ASN1_TIME_to_tm(time, &utc) != 1) return "?";
    std::array<char, 40> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text.data();
}

std::string alternativeName(GENERAL_NAME const& name) {
    int type = 0;
    void const* const value = ::GENERAL_NAME_get0_value(&name, &type);
    if (type != GEN_DNS && type != GEN_IPADD) return {};
    auto const* const string = static_cast<ASN1_STRING const*>(value);
    unsigned char const* const bytes = ::ASN1_STRING_get0_data(string);
    auto const size = static_cast<std::size_t>(::ASN1_STRING_length(string));
    std::string text;
    if (type == GEN_DNS) {
        text.assign(reinterpret_cast<char const*>(bytes), size);
        for (char& c : text)
            if (c <= ' ' || c > '~') c = '?';
        return text;
    }
    std::array<char, INET6_ADDRSTRLEN> address{};
    int const family = size == 4 ? AF_INET : AF_INET6;
    if (size != 4 && size != 16) return {};
    ::inet_ntop(family, bytes, address.data(), address.size());
    return address.data();
}

// Whom the certificate is for.
std::string hostsOf(X509* certificate) {
    std::unique_ptr<GENERAL_NAMES, FreeNames> const names(static_cast<GENERAL_NAMES*>(
        ::X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string text;
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()) && i < 10; ++i) {
        std::string const name = alternativeName(*sk_GENERAL_NAME_value(names.get(), i));
        if (!name.empty()) text.append(text.empty() ? "" : ", ").append(name);
    }
    return text.empty() ? nameText(::X509_get_subject_name(certificate)) : text;
}

std::string distrust(int error, X509* certificate) {
    if (!certificate) return ::X509_verify_cert_error_string(error);
    std::string const subject =
        "the certificate of " + nameText(::X509_get_subject_name(certificate));
    std::string const until = timeText(::X509_get0_notAfter(certificate));
    switch (error) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return subject + " has expired: it was good until " + until;
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return subject + " is good from " + timeText(::X509_get0_notBefore(certificate)) +
                   " on";
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return "wrong host: the certificate is for " + hostsOf(certificate) + " (good until " +
                   until + ")";
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return "unknown authority: " + subject + " was issued by " +
                   nameText(::X509_get_issuer_name(certificate)) + " (good until " + until + ")";
        default:
            return subject + " (good until " + until +
                   "): " + ::X509_verify_cert_error_string(error);
    }
}

}  // namespace

std::string TlsSession::peerSubject() const {
    X509* const certificate = ::SSL_get0_peer_certificate(m_session.get());
    bool const isVerified = certificate && ::SSL_get_verify_result(m_session.get()) == X509_V_OK;
    return isVerified ? nameText(::X509_get_subject_name(certificate)) : std::string();
}

int noteVerification(int accepted, X509_STORE_CTX* verification) {
    if (accepted != 0) return accepted;
    auto* const ssl = static_cast<SSL*>(
        ::X509_STORE_CTX_get_ex_data(verification, ::SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto* const session = ssl ? static_cast<TlsSession*>(SSL_get_app_data(ssl)) : nullptr;
    if (!session) return accepted;
    try {
        session->noteDistrust(distrust(::X509_STORE_CTX_get_error(verification),
                                       ::X509_STORE_CTX_get_current_cert(verification)));
    } catch (std::bad_alloc const&) {
        session->noteLackOfMemory();
    }
    return accepted;
}

}  // namespace postwire
