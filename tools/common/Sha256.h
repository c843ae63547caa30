#pragma once

#include <cstddef>
#include <memory>
#include <string>

// The SHA-256 of bytes that come in any number of pieces.
//
// Raises: std::runtime_error when the crypto library can't compute it.
class Sha256 {
public:
    Sha256();
    ~Sha256();

    void add(char const* bytes, std::size_t n);

    // 64 lower-case hexadecimal digits; nothing can be added afterwards.
    std::string hex();

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

std::string sha256(char const* bytes, std::size_t n);
