/*
 * alloc_counter.cpp - malloc, calloc, realloc and the aligned variants
 * forward to glibc's allocator (__libc_*) and count on the calling thread.
 * free is replaced too, as glibc requires of a program that replaces malloc.
 */
#include "alloc_counter.h"

#include <cstddef>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *pointer);
}

namespace {

// Initial-exec TLS needs no allocation on first touch, so the counter can
// be read from inside malloc itself.
__thread bool counting __attribute__((tls_model("initial-exec")));
__thread uint64_t allocations __attribute__((tls_model("initial-exec")));

inline void Count()
{
    if (counting)
        ++allocations;
}

} // namespace

namespace zelisp_bench {

void StartCountingAllocations()
{
    allocations = 0;
    counting = true;
}

uint64_t StopCountingAllocations()
{
    counting = false;
    return allocations;
}

} // namespace zelisp_bench

extern "C" {

void *malloc(size_t size)
{
    Count();
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    Count();
    return __libc_calloc(count, size);
}

void *realloc(void *pointer, size_t size)
{
    Count();
    return __libc_realloc(pointer, size);
}

void *memalign(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    Count();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size)
{
    Count();
    void *pointer = __libc_memalign(alignment, size);
    if (!pointer)
        return 12; // ENOMEM
    *out = pointer;
    return 0;
}

void free(void *pointer) { __libc_free(pointer); }

} // extern "C"
