// Takes every free descriptor below FD_SETSIZE for the scope's life, so
// that the next descriptor opened is one select cannot watch.
#pragma once

#include <algorithm>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <vector>

#include "lib/fd.h"

class descriptor_fill {
  public:
    descriptor_fill() {
        (void)getrlimit(RLIMIT_NOFILE, &saved_);
        rlimit room = saved_;
        room.rlim_cur = std::max<rlim_t>(room.rlim_cur, FD_SETSIZE + 64);
        room.rlim_max = std::max(room.rlim_max, room.rlim_cur); // raising it: root only
        ok_ = setrlimit(RLIMIT_NOFILE, &room) == 0;
        auto next = [] { return unique_fd(open("/dev/null", O_RDONLY | O_CLOEXEC)); };
        for (unique_fd fd = next(); fd.valid() && fd.get() < FD_SETSIZE; fd = next())
            held_.push_back(std::move(fd));
    }
    ~descriptor_fill() {
        held_.clear();
        (void)setrlimit(RLIMIT_NOFILE, &saved_);
    }
    descriptor_fill(const descriptor_fill &) = delete;
    descriptor_fill &operator=(const descriptor_fill &) = delete;

    // False when the limit could not be raised past FD_SETSIZE.
    bool ok() const { return ok_; }

  private:
    rlimit saved_{};
    bool ok_ = false;
    std::vector<unique_fd> held_;
};
