/*
 * alloc_counter.h - counts heap allocations made on the calling thread while
 * counting is switched on. The program's malloc family is replaced by thin
 * forwarders to glibc's own allocator, so operator new, the library and the
 * simulator are all seen; other threads (the simulator's hardware thread) are
 * not counted.
 */
#ifndef ZELISP_BENCH_ALLOC_COUNTER_H
#define ZELISP_BENCH_ALLOC_COUNTER_H

#include <cstdint>

namespace zelisp_bench {

void StartCountingAllocations();
// Stops counting and returns the allocations seen since the start.
uint64_t StopCountingAllocations();

} // namespace zelisp_bench

#endif
