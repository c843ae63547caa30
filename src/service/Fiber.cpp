#include "service/Fiber.h"

#include <array>
#include <cstring>
#include <new>
#include <utility>

#include <sys/mman.h>
#include <unistd.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define POSTWIRE_ASAN
#endif
#if __has_feature(thread_sanitizer)
#define POSTWIRE_TSAN
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define POSTWIRE_ASAN
#endif
#if defined(__SANITIZE_THREAD__)
#define POSTWIRE_TSAN
#endif
#ifdef POSTWIRE_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif
#ifdef POSTWIRE_TSAN
#include <sanitizer/tsan_interface.h>
#endif

namespace postwire {

namespace {

// Kept for the next burst; more are given back to the system.
constexpr std::size_t kMostFree = 64;

std::size_t pageSize() { return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)); }

}  // namespace

// Reading takes about 6 KiB, an exception on its way twice that; sanitizers make frames several
// times as large.
#if defined(POSTWIRE_ASAN) || defined(POSTWIRE_TSAN)
std::size_t const StackPool::kSize = 512 << 10;
#else
std::size_t const StackPool::kSize = 64 << 10;
#endif

StackPool::~StackPool() {
    for (char* const stack : m_free) ::munmap(stack - pageSize(), kSize + pageSize());
}

char* StackPool::take() {
    if (!m_free.empty()) {
        char* const stack = m_free.back();
        m_free.pop_back();
        return stack;
    }
    m_free.reserve(kMostFree);  // so that giving back takes no memory
    void* const memory = ::mmap(nullptr, kSize + pageSize(), PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    if (::mprotect(memory, pageSize(), PROT_NONE) != 0) {
        ::munmap(memory, kSize + pageSize());
        throw std::bad_alloc();
    }
    return static_cast<char*>(memory) + pageSize();
}

void StackPool::giveBack(char* stack) noexcept {
#ifdef POSTWIRE_ASAN
    // The frames below the last switch were never left.
    __asan_unpoison_memory_region(stack, kSize);
#endif
    if (m_free.size() < kMostFree)
        m_free.push_back(stack);
    else
        ::munmap(stack - pageSize(), kSize + pageSize());
}

Fiber::Fiber(StackPool& pool, std::function<void(Fiber&)> function)
    : m_pool(pool), m_stack(pool.take()), m_function(std::move(function)) {
    ::getcontext(&m_own);
    m_own.uc_stack.ss_sp = m_stack;
    m_own.uc_stack.ss_size = StackPool::kSize;
    m_own.uc_link = nullptr;
    // A context takes its arguments as int, on 64 bit the pointer in two.
    void* const self = this;
    std::array<unsigned int, 2> words{};
    static_assert(sizeof self <= sizeof words);
    std::memcpy(words.data(), &self, sizeof self);
    ::makecontext(&m_own, reinterpret_cast<void (*)()>(&Fiber::enter), 2, words[0], words[1]);
#ifdef POSTWIRE_TSAN
    m_threadFiber = __tsan_create_fiber(0);
#endif
}

Fiber::~Fiber() {
#ifdef POSTWIRE_TSAN
    __tsan_destroy_fiber(m_threadFiber);
#endif
    m_pool.giveBack(m_stack);
}

bool Fiber::resume() {
#ifdef POSTWIRE_TSAN
    m_threadCaller = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(m_threadFiber, 0);
#endif
#ifdef POSTWIRE_ASAN
    __sanitizer_start_switch_fiber(&m_callerShadow, m_stack, StackPool::kSize);
#endif
    ::swapcontext(&m_caller, &m_own);
#ifdef POSTWIRE_ASAN
    __sanitizer_finish_switch_fiber(m_callerShadow, nullptr, nullptr);
#endif
    return m_returned;
}

void Fiber::suspend() {
    leave(false);
    arrive();
}

void Fiber::enter(unsigned int first, unsigned int second) {
    std::array<unsigned int, 2> const words{first, second};
    void* self = nullptr;
    std::memcpy(&self, words.data(), sizeof self);
    auto& fiber = *static_cast<Fiber*>(self);
    fiber.arrive();
    fiber.m_function(fiber);
    fiber.m_returned = true;
    fiber.leave(true);
}

// Just after a switch to this stack.
void Fiber::arrive() {
#ifdef POSTWIRE_ASAN
    __sanitizer_finish_switch_fiber(m_ownShadow, &m_callerStack, &m_callerSize);
#endif
}

// A stack that is left for ever gives up what the sanitizer keeps of it.
void Fiber::leave([[maybe_unused]] bool forEver) {
#ifdef POSTWIRE_TSAN
    __tsan_switch_to_fiber(m_threadCaller, 0);
#endif
#ifdef POSTWIRE_ASAN
    __sanitizer_start_switch_fiber(forEver ? nullptr : &m_ownShadow, m_callerStack, m_callerSize);
#endif
    ::swapcontext(&m_own, &m_caller);
}

}  // namespace postwire
