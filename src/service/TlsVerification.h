#pragma once

struct x509_store_ctx_st;

namespace postwire {

// For OpenSSL, while it verifies a peer's certificates: keeps in words what is wrong with one, with
// whose it is and until when it is good. Accepts what OpenSSL accepts.
int noteVerification(int accepted, x509_store_ctx_st* verification);

}  // namespace postwire
