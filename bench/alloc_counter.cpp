/*
 * alloc_counter.cpp - malloc, calloc, realloc, the aligned allocators and
 * the global operator new forward to glibc's allocator (__libc_*) and count
 * on the calling thread. free and operator delete are replaced too, as a
 * program that replaces the allocator must.
 *
 * operator new is replaced so that its caller can be seen: behind
 * libstdc++'s own operator new, every C++ allocation would look as if
 * libstdc++ had asked for it.
 */
#include "alloc_counter.h"

#include <link.h>

#include <cstddef>
#include <cstring>
#include <new>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *pointer, size_t size);
void *__libc_memalign(size_t alignment, size_t size);
void __libc_free(void *pointer);
}

namespace {

// Initial-exec TLS needs no allocation on first touch, so the counters can
// be used from inside malloc itself.
__thread bool counting __attribute__((tls_model("initial-exec")));
__thread uint64_t allocations __attribute__((tls_model("initial-exec")));
__thread uint64_t object_allocations __attribute__((tls_model("initial-exec")));

// Address range of the chosen object's loaded segments.
uintptr_t object_begin = 0;
uintptr_t object_end = 0;

inline void Count(void *caller)
{
    if (!counting)
        return;
    ++allocations;
    uintptr_t address = reinterpret_cast<uintptr_t>(caller);
    if (address >= object_begin && address < object_end)
        ++object_allocations;
}

struct Search {
    const char *fragment;
    bool found;
};

int FindObject(dl_phdr_info *info, size_t, void *data)
{
    auto *search = static_cast<Search *>(data);
    if (!info->dlpi_name || !strstr(info->dlpi_name, search->fragment))
        return 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &segment = info->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD)
            continue;
        uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
        uintptr_t end = begin + segment.p_memsz;
        if (!search->found || begin < object_begin)
            object_begin = begin;
        if (!search->found || end > object_end)
            object_end = end;
        search->found = true;
    }
    return search->found ? 1 : 0;
}

void *New(size_t size, void *caller)
{
    Count(caller);
    void *pointer = __libc_malloc(size ? size : 1);
    if (!pointer)
        throw std::bad_alloc();
    return pointer;
}

void *NewAligned(size_t size, std::align_val_t alignment, void *caller)
{
    Count(caller);
    void *pointer = __libc_memalign(size_t(alignment), size ? size : 1);
    if (!pointer)
        throw std::bad_alloc();
    return pointer;
}

} // namespace

namespace zelisp_bench {

bool AttributeAllocationsTo(const char *name_fragment)
{
    Search search{name_fragment, false};
    dl_iterate_phdr(FindObject, &search);
    return search.found;
}

void StartCountingAllocations()
{
    allocations = 0;
    object_allocations = 0;
    counting = true;
}

AllocationCount StopCountingAllocations()
{
    counting = false;
    return AllocationCount{allocations, object_allocations};
}

} // namespace zelisp_bench

#define CALLER __builtin_return_address(0)

extern "C" {

void *malloc(size_t size)
{
    Count(CALLER);
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    Count(CALLER);
    return __libc_calloc(count, size);
}

void *realloc(void *pointer, size_t size)
{
    Count(CALLER);
    return __libc_realloc(pointer, size);
}

void *memalign(size_t alignment, size_t size)
{
    Count(CALLER);
    return __libc_memalign(alignment, size);
}

void *aligned_alloc(size_t alignment, size_t size)
{
    Count(CALLER);
    return __libc_memalign(alignment, size);
}

int posix_memalign(void **out, size_t alignment, size_t size)
{
    Count(CALLER);
    void *pointer = __libc_memalign(alignment, size);
    if (!pointer)
        return 12; // ENOMEM
    *out = pointer;
    return 0;
}

void free(void *pointer) { __libc_free(pointer); }

} // extern "C"

void *operator new(size_t size) { return New(size, CALLER); }
void *operator new[](size_t size) { return New(size, CALLER); }
void *operator new(size_t size, std::align_val_t alignment) { return NewAligned(size, alignment, CALLER); }
void *operator new[](size_t size, std::align_val_t alignment) { return NewAligned(size, alignment, CALLER); }

void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    Count(CALLER);
    return __libc_malloc(size ? size : 1);
}

void *operator new[](size_t size, const std::nothrow_t &) noexcept
{
    Count(CALLER);
    return __libc_malloc(size ? size : 1);
}

void operator delete(void *pointer) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, size_t) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, std::align_val_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, std::align_val_t) noexcept { __libc_free(pointer); }
void operator delete(void *pointer, size_t, std::align_val_t) noexcept { __libc_free(pointer); }
void operator delete[](void *pointer, size_t, std::align_val_t) noexcept { __libc_free(pointer); }
