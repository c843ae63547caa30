#include "tools/common/Sha256.h"

#include <stdexcept>

#include <openssl/evp.h>

#include "foundation/AsciiText.h"

namespace {

void require(int done) {
    if (done != 1) throw std::runtime_error("SHA-256 is not available");
}

// Looked up once: the look-up costs more than the digest of a small body.
EVP_MD const* algorithm() {
    static EVP_MD const* const found = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return found;
}

}  // namespace

struct Sha256::Context {
    EVP_MD_CTX* digest = EVP_MD_CTX_new();

    Context() = default;
    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;
    ~Context() { EVP_MD_CTX_free(digest); }
};

Sha256::Sha256() : m_context(std::make_unique<Context>()) {
    require(EVP_DigestInit_ex(m_context->digest, algorithm(), nullptr));
}

Sha256::~Sha256() = default;

void Sha256::add(char const* bytes, std::size_t n) {
    require(EVP_DigestUpdate(m_context->digest, bytes, n));
}

std::string Sha256::hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    require(EVP_DigestFinal_ex(m_context->digest, digest, &length));
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        text += hexDigit(digest[i] >> 4U);
        text += hexDigit(digest[i]);
    }
    return text;
}

std::string sha256(char const* bytes, std::size_t n) {
    Sha256 digest;
    digest.add(bytes, n);
    return digest.hex();
}
