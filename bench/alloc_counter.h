/*
 * alloc_counter.h - counts heap allocations made on the calling thread while
 * counting is switched on. The program's malloc family and operator new are
 * replaced by thin forwarders to glibc's own allocator, so the library, the
 * simulator and libstdc++ are all seen; other threads (the simulator's
 * sensor thread) are not counted.
 *
 * Each allocation is also attributed to its immediate caller: an allocation
 * requested by code inside one chosen shared object (the library) is counted
 * apart, whatever else allocates on the thread.
 */
#ifndef ZELISP_BENCH_ALLOC_COUNTER_H
#define ZELISP_BENCH_ALLOC_COUNTER_H

#include <cstdint>

namespace zelisp_bench {

struct AllocationCount {
    uint64_t all = 0;         // every allocation on the thread
    uint64_t from_object = 0; // those called for directly by the chosen object's code
};

// Chooses the shared object whose own allocations are counted apart, by a
// fragment of its file name ("libzelisp.so"). False if it is not loaded.
bool AttributeAllocationsTo(const char *name_fragment);

void StartCountingAllocations();
// Stops counting and returns what was seen since the start.
AllocationCount StopCountingAllocations();

} // namespace zelisp_bench

#endif
