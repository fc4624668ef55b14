# Shared by the scripts in this directory; sourced, not run.

# Stops a script at once, before apt, when it does not run as root.
require_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "run as root: it installs packages and makes network namespaces" >&2
        exit 2
    fi
}

# Installs those of the given Debian packages that are missing, without
# the packages they merely recommend.
install_missing() {
    local need=() pkg
    for pkg in "$@"; do
        dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
    done
    if [ ${#need[@]} -gt 0 ]; then
        echo "installing: ${need[*]}"
        apt-get update -qq
        DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
    fi
}

# True once the box answers discovery from the host's namespace (50 tries of
# 0.2 s); false at once when the daemon's process is gone.
box_answers() { # DYPCTL HOST_NS HOST_IF DAEMON_PID
    local try
    for try in $(seq 1 50); do
        ip netns exec "$2" "$1" discover --interface "$3" --timeout 0.2 >/dev/null 2>&1 && return 0
        kill -0 "$4" 2>/dev/null || return 1
    done
    return 1
}

# Runs a command with its output kept in LOG; prints the log only when the
# command fails, and then fails too.
quietly() {
    local log=$1; shift
    if ! "$@" >"$log" 2>&1; then
        echo "failed: $*" >&2
        cat "$log" >&2
        return 1
    fi
}

# Compiler jobs: one per CPU, at most 8.
build_jobs() {
    local n
    n=$(nproc)
    echo $((n < 8 ? n : 8))
}

# Stops the given processes (each waited for), then every process left in
# the given namespaces, and removes the namespaces.
stop_and_remove() { # "PID..." NS...
    local pid ns
    for pid in $1; do
        if kill -0 "$pid" 2>/dev/null; then
            kill "$pid" 2>/dev/null || true
            wait "$pid" 2>/dev/null || true
        fi
    done
    shift
    for ns in "$@"; do
        ip netns pids "$ns" 2>/dev/null | xargs -r kill 2>/dev/null || true
        ip netns del "$ns" 2>/dev/null || true
    done
}
