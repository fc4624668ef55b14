// Captures what the daemon code logs through dyp_log while in scope.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "lib/log.h"

struct captured_line {
    int priority;
    std::string text;
};

class log_capture {
  public:
    log_capture() {
        clear();
        dyp_log_set_sink([](int priority, const char *text) {
            lines_.push_back({priority, text});
        });
    }
    ~log_capture() {
        dyp_log_set_sink(nullptr);
        clear();
    }
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    const std::vector<captured_line> &lines() const { return lines_; }
    // Number of lines at `priority` whose text contains `needle`.
    int count(int priority, const std::string &needle) const {
        return static_cast<int>(std::count_if(lines_.begin(), lines_.end(), [&](const auto &line) {
            return line.priority == priority && line.text.find(needle) != std::string::npos;
        }));
    }
    void clear() { lines_.clear(); }

  private:
    static inline std::vector<captured_line> lines_;
};
