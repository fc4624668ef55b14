// Captures what the daemon code logs through dyp_log while in scope.
#pragma once

#include <string>
#include <vector>

struct captured_line {
    int priority;
    std::string text;
};

class log_capture {
  public:
    log_capture();
    ~log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;

    const std::vector<captured_line> &lines() const;
    // Number of lines at `priority` whose text contains `needle`.
    int count(int priority, const std::string &needle) const;
    void clear();
};
