#include "AllocationCount.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace zandor::bench {

namespace {

std::atomic<uint64_t> g_count{0};
std::atomic<uint64_t> g_bytes{0};

void* allocate(std::size_t size, std::size_t alignment = 0) {
    g_count.fetch_add(1, std::memory_order_relaxed);
    g_bytes.fetch_add(size, std::memory_order_relaxed);
    void* memory = nullptr;
    if (alignment > alignof(std::max_align_t)) {
        if (posix_memalign(&memory, alignment, size ? size : 1) != 0) {
            memory = nullptr;
        }
    } else {
        memory = std::malloc(size ? size : 1);
    }
    return memory;
}

} // namespace

Allocations Allocations::now() {
    return {g_count.load(std::memory_order_relaxed), g_bytes.load(std::memory_order_relaxed)};
}

} // namespace zandor::bench

using zandor::bench::allocate;

void* operator new(std::size_t size) {
    if (void* memory = allocate(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    if (void* memory = allocate(size, static_cast<std::size_t>(alignment))) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return operator new(size, alignment);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
