// A counting global operator new for one benchmark program: include it in exactly one source file of
// the program. It replaces the allocator of the whole process (the shared libraries included), counts
// the allocations made while counting is switched on, and forwards to malloc.
#ifndef SIPC_BENCH_ALLOC_COUNTER_H
#define SIPC_BENCH_ALLOC_COUNTER_H

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace sipc_bench {

inline std::atomic<bool> g_countAllocations{false};
inline std::atomic<uint64_t> g_allocations{0};

// Counts the allocations made between start() (or construction) and stop() (or destruction).
class AllocationScope {
public:
    AllocationScope() { start(); }
    ~AllocationScope() { stop(); }
    AllocationScope(const AllocationScope&) = delete;
    AllocationScope& operator=(const AllocationScope&) = delete;
    void start() {
        m_start = g_allocations.load();
        g_countAllocations = true;
    }
    // The allocations since start().
    uint64_t stop() {
        g_countAllocations = false;
        return g_allocations.load() - m_start;
    }

private:
    uint64_t m_start = 0;
};

inline void* countedAllocation(std::size_t size) {
    if (g_countAllocations.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

inline void* countedAlignedAllocation(std::size_t size, std::align_val_t align) {
    if (g_countAllocations.load(std::memory_order_relaxed)) g_allocations.fetch_add(1, std::memory_order_relaxed);
    const std::size_t a = static_cast<std::size_t>(align);
    if (void* p = std::aligned_alloc(a, (size + a - 1) / a * a)) return p;
    throw std::bad_alloc();
}

}  // namespace sipc_bench

void* operator new(std::size_t size) { return sipc_bench::countedAllocation(size); }
void* operator new[](std::size_t size) { return sipc_bench::countedAllocation(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return sipc_bench::countedAllocation(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return sipc_bench::countedAllocation(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new(std::size_t size, std::align_val_t align) {
    return sipc_bench::countedAlignedAllocation(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align) {
    return sipc_bench::countedAlignedAllocation(size, align);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }

#endif  // SIPC_BENCH_ALLOC_COUNTER_H
