#include "lib/alloc.h"

#include <cstdlib>
#include <cstring>

namespace {
unsigned fail_countdown;
bool fail_sticky;
unsigned long allocations;
long live_blocks;

bool injected_failure() {
    ++allocations;
    if (fail_countdown == 0)
        return false;
    if (--fail_countdown == 0) {
        if (fail_sticky)
            fail_countdown = 1;
        return true;
    }
    return false;
}

void *counted(void *block) {
    if (block != nullptr)
        ++live_blocks;
    return block;
}
} // namespace

void dyp_alloc_fail_after(unsigned nth, bool sticky) {
    fail_countdown = nth;
    fail_sticky = sticky;
}

unsigned long dyp_alloc_count() { return allocations; }

long dyp_alloc_live() { return live_blocks; }

void *dyp_malloc(size_t size) {
    if (injected_failure())
        return nullptr;
    return counted(std::malloc(size == 0 ? 1 : size));
}

// Over malloc rather than calloc: one libc import less for the daemon.
void *dyp_calloc(size_t count, size_t size) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes))
        return nullptr;
    void *block = dyp_malloc(bytes);
    if (block != nullptr)
        std::memset(block, 0, bytes);
    return block;
}

void *dyp_realloc(void *ptr, size_t size) {
    if (injected_failure())
        return nullptr;
    void *block = std::realloc(ptr, size == 0 ? 1 : size);
    // Growing a block keeps the count; only a new one adds to it.
    return ptr == nullptr ? counted(block) : block;
}

void dyp_free(void *ptr) {
    if (ptr != nullptr)
        --live_blocks;
    std::free(ptr);
}
