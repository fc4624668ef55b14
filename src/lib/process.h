// Process-level helpers: detaching into the background and holding the
// pid file that keeps a second instance from starting.
#pragma once

// Detaches the calling process: it and an intermediate child end with
// _exit(0) inside the call, and the grandchild returns 0 in a new session,
// with "/" as working directory, umask 0, SIGHUP ignored and its standard
// streams on "/dev/null". -1 on failure. `name` is not used.
int tq_daemonize(const char *name);

// Creates or reuses "/var/run/<name>.pid", locks it exclusively, and writes
// the process id into it. Returns the open, locked descriptor, which the
// caller keeps for the life of the process (closing it releases the lock),
// or -1 on failure, in particular when another process holds the lock. The
// file is never removed: only the lock tells a running instance.
int tq_create_pid_file(const char *name);
