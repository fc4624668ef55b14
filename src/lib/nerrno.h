// Adapters from libc's -1/errno convention to the negative-errno results
// that every function of the daemon returns.
#pragma once

#include <cerrno>

// The current errno as a negative value; -EIO if errno was left at 0.
inline int neg_errno() { return errno > 0 ? -errno : -EIO; }

// A libc result: -1 becomes -errno, anything else passes through.
template <typename T> inline int nerrno(T result) {
    return result < 0 ? neg_errno() : static_cast<int>(result);
}
