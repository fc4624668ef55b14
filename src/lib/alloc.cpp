#include "lib/alloc.h"

#include <cstdlib>

namespace {
unsigned fail_countdown;
bool fail_sticky;
unsigned long allocations;

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
} // namespace

void dyp_alloc_fail_after(unsigned nth, bool sticky) {
    fail_countdown = nth;
    fail_sticky = sticky;
}

unsigned long dyp_alloc_count() { return allocations; }

void *dyp_malloc(size_t size) {
    if (injected_failure())
        return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

void *dyp_calloc(size_t count, size_t size) {
    if (injected_failure())
        return nullptr;
    if (count == 0 || size == 0)
        return std::calloc(1, 1);
    return std::calloc(count, size);
}

void *dyp_realloc(void *ptr, size_t size) {
    if (injected_failure())
        return nullptr;
    return std::realloc(ptr, size == 0 ? 1 : size);
}

void dyp_free(void *ptr) { std::free(ptr); }
