// Runs something that might never return in a child process with a time
// limit, so that a test of it fails instead of holding the whole run.
#pragma once

#include <functional>
#include <optional>

// The result of `attempt` (0 or a negative errno value down to -255), or
// nothing when the child did not finish within `seconds` or died.
std::optional<int> run_with_time_limit(const std::function<int()> &attempt, unsigned seconds = 10);
