// Every heap allocation of the daemon goes through these helpers, so that
// tests can make the N-th one fail and walk the -ENOMEM paths for real.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

// malloc/calloc/free with failure injection. dyp_calloc zeroes the block.
// A request for zero bytes returns a valid, unique block (never null on
// success), so callers can treat "no memory" and "nothing to hold" apart.
void *dyp_malloc(size_t size);
void *dyp_calloc(size_t count, size_t size);
void *dyp_realloc(void *ptr, size_t size);
void dyp_free(void *ptr);

// Test hook: the allocation that is `nth` calls from now (1 = the next one)
// fails, and so does every later one while `sticky` is set. 0 disarms.
void dyp_alloc_fail_after(unsigned nth, bool sticky = false);
// Number of allocations made since start (tests use it to find the N-th).
unsigned long dyp_alloc_count();
// Blocks handed out and not yet freed: tests compare it before and after a
// path to prove that the path leaks nothing.
long dyp_alloc_live();

// Constructs a T in a block from dyp_malloc; null when memory runs out.
template <typename T, typename... Args> T *dyp_new(Args &&...args) {
    void *block = dyp_malloc(sizeof(T));
    if (block == nullptr)
        return nullptr;
    return ::new (block) T(std::forward<Args>(args)...);
}

// Destroys and frees an object made by dyp_new; null is ignored.
template <typename T> void dyp_delete(T *object) {
    if (object == nullptr)
        return;
    object->~T();
    dyp_free(object);
}
