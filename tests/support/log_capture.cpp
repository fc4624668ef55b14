#include "support/log_capture.h"

#include "lib/log.h"

namespace {
std::vector<captured_line> captured;

void sink(int priority, const char *text) { captured.push_back({priority, text}); }
} // namespace

log_capture::log_capture() {
    captured.clear();
    dyp_log_set_sink(sink);
}

log_capture::~log_capture() {
    dyp_log_set_sink(nullptr);
    captured.clear();
}

const std::vector<captured_line> &log_capture::lines() const { return captured; }

int log_capture::count(int priority, const std::string &needle) const {
    int n = 0;
    for (const auto &line : captured)
        if (line.priority == priority && line.text.find(needle) != std::string::npos)
            ++n;
    return n;
}

void log_capture::clear() { captured.clear(); }
