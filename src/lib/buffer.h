// tqbuffer: a fixed-capacity output buffer over caller-owned storage.
// Writes are cut to fit; a null `data` only counts.
#pragma once

#include <cstdint>

struct tqbuffer {
    uint8_t *data;
    uint32_t capacity;
    uint32_t length;
};

// Copies what still fits of `length` bytes and returns that count (0 or
// more); -ENOBUFS only when the buffer was already full. A null `source`
// reserves room without writing it.
int tqbuffer_write(tqbuffer *buffer, const void *source, uint32_t length);
