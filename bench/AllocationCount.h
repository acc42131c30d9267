#pragma once

#include <cstdint>

namespace zandor::bench {

// Allocations through operator new in the whole process since it started: the benchmarks that
// link AllocationCount.cpp replace the global operator new to count them.
struct Allocations {
    uint64_t count;
    uint64_t bytes;

    static Allocations now();
};

} // namespace zandor::bench
