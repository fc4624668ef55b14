#include "lib/buffer.h"

#include <cerrno>
#include <cstring>

int tqbuffer_write(tqbuffer *buffer, const void *source, uint32_t length) {
    if (buffer->length == buffer->capacity)
        return -ENOBUFS;
    uint32_t room = buffer->capacity - buffer->length;
    uint32_t n = length > room ? room : length;
    if (buffer->data != nullptr && source != nullptr && n > 0)
        std::memcpy(buffer->data + buffer->length, source, n);
    buffer->length += n;
    return static_cast<int>(n);
}
