// The one owner of file descriptors: move-only, closes in its destructor.
// close() of a descriptor appears in this file only.
#pragma once

#include <sys/select.h>
#include <unistd.h>

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    // Always inlined: an owner whose destructor is called out of line has
    // its address taken, and that alone makes the stack protector guard
    // every function holding one.
    [[gnu::always_inline]] ~unique_fd() { reset(); }

    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

    // Gives the descriptor up without closing it.
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

    // Closes the held descriptor (if any) and takes `fd` instead.
    [[gnu::always_inline]] void reset(int fd = -1) {
        if (fd_ >= 0)
            (void)::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// Closes a descriptor that a record holds as a plain int (the daemon's
// endpoint and SKA records keep theirs that way) and marks it closed.
inline void close_fd_slot(int &fd) {
    unique_fd owner(fd);
    fd = -1;
}

// select watches descriptors below FD_SETSIZE only; FD_SET of any other
// writes past the set. A descriptor meant for the main loop's wait is
// checked with this when it is opened and refused if it fails.
inline bool fd_selectable(int fd) {
    return fd >= 0 && fd < FD_SETSIZE;
}
