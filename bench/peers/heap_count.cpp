// Counts heap calls by replacing them. operator new is counted on its own; malloc and its
// kin are wrapped too (glibc only), because C peers and some C++ ones call them directly.
#include "cases.hpp"

#include <cstdlib>
#include <new>

namespace bench {
std::uint64_t new_calls = 0;
std::uint64_t malloc_calls = 0;
}

#ifdef __GLIBC__
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);

void* malloc(std::size_t n) { ++bench::malloc_calls; return __libc_malloc(n); }
void* calloc(std::size_t n, std::size_t m) { ++bench::malloc_calls; return __libc_calloc(n, m); }
void* realloc(void* p, std::size_t n) { ++bench::malloc_calls; return __libc_realloc(p, n); }
}
#endif

static void* counted(std::size_t n) {
    ++bench::new_calls;
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}

void* operator new(std::size_t n) { return counted(n); }
void* operator new[](std::size_t n) { return counted(n); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
