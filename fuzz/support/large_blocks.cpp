// Large blocks kept for the next input (targets linked with
// -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free; see
// CMakeLists.txt).
//
// The snapshot takes three 256 KiB blocks a call and clears two of them once
// a port; the sanitizer's allocator maps every block that large afresh and
// unmaps it on release, so that most of an input's time went to page faults
// on new mappings. A released block of 64 KiB to 4 MiB is kept here instead
// (the sixteen released last), poisoned, and handed out again for a request
// of its size or a little less. It is still the sanitizer's own block, with
// its red zones, and the bytes past the request stay poisoned: a read or
// write past the requested size is reported as before (as a use of poisoned
// memory), and so is a use of a kept block after its release. A block
// released twice while kept aborts. Blocks of other sizes go to the
// allocator as they came.
#include <sanitizer/asan_interface.h>
#include <sanitizer/allocator_interface.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __real_malloc(std::size_t);
void* __real_calloc(std::size_t, std::size_t);
void* __real_realloc(void*, std::size_t);
void __real_free(void*);
}

namespace {

constexpr std::size_t kSmallest = 64 * 1024;
constexpr std::size_t kLargest = 4 * 1024 * 1024;
constexpr std::size_t kSlots = 16;

struct Kept {
    void* p;
    std::size_t size;
};
Kept g_kept[kSlots];
std::size_t g_count = 0;

// A kept block for a request of `size` bytes: the smallest kept block of
// that size up to half as large again. The bytes past the request stay
// poisoned, so that a read or write past it is still reported.
void* take(std::size_t size) {
    if (size < kSmallest || size > kLargest) return nullptr;
    std::size_t best = g_count;
    for (std::size_t i = 0; i < g_count; ++i) {
        const std::size_t have = g_kept[i].size;
        if (have < size || have > size + size / 2) continue;
        if (best == g_count || have < g_kept[best].size) best = i;
    }
    if (best == g_count) return nullptr;
    void* p = g_kept[best].p;
    std::memmove(g_kept + best, g_kept + best + 1, sizeof(Kept) * (g_count - best - 1));
    --g_count;
    ASAN_UNPOISON_MEMORY_REGION(p, size);
    return p;
}

bool keep(void* p) {
    const std::size_t size = __sanitizer_get_allocated_size(p);
    for (std::size_t i = 0; i < g_count; ++i) {
        if (g_kept[i].p == p) {
            std::fprintf(stderr, "block %p released twice\n", p);
            std::abort();
        }
    }
    if (size < kSmallest || size > kLargest) return false;
    if (g_count == kSlots) {
        // The oldest goes back to the allocator: the sizes an input asks for
        // again are those of the last few inputs.
        __real_free(g_kept[0].p);
        std::memmove(g_kept, g_kept + 1, sizeof(Kept) * (kSlots - 1));
        --g_count;
    }
    ASAN_POISON_MEMORY_REGION(p, size);
    g_kept[g_count++] = Kept{p, size};
    return true;
}

}  // namespace

extern "C" {

void* __wrap_malloc(std::size_t n) {
    if (void* p = take(n)) return p;
    return __real_malloc(n);
}

void* __wrap_calloc(std::size_t k, std::size_t n) {
    std::size_t bytes = 0;
    if (!__builtin_mul_overflow(k, n, &bytes)) {
        if (void* p = take(bytes)) return std::memset(p, 0, bytes);
    }
    return __real_calloc(k, n);
}

void* __wrap_realloc(void* p, std::size_t n) {
    for (std::size_t i = 0; i < g_count; ++i) {
        if (g_kept[i].p == p) {
            std::fprintf(stderr, "block %p reallocated after its release\n", p);
            std::abort();
        }
    }
    return __real_realloc(p, n);
}

void __wrap_free(void* p) {
    if (p != nullptr && __sanitizer_get_ownership(p) && keep(p)) return;
    __real_free(p);
}

}  // extern "C"
