#!/usr/bin/env bash
# Runs dypd against the simulated driver in a network namespace standing for
# the box, and drives it with dypctl from a second namespace standing for a
# host on the same link. Nothing leaves the two namespaces: they are joined
# by one veth pair on 192.0.2.0/24, and both are removed on the way out,
# also when the script is interrupted. Needs root (namespaces, mounts).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

. scripts/lib.sh
require_root
install_missing cmake g++ make libgtest-dev libgmock-dev iproute2 util-linux libcli11-dev nlohmann-json3-dev

echo "== building (build-demo)"
mkdir -p build-demo
quietly build-demo/configure.log cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo
quietly build-demo/build.log cmake --build build-demo --target dypd dypctl dypsim_preload \
    -j "$(build_jobs)"
dypd=$root/build-demo/dypd
dypctl=$root/build-demo/tools/dypctl/dypctl
preload=$(find "$root/build-demo/sim" -name 'libdypsim_preload*.so' | head -n1)
devices=$root/examples/devices.ini

tag=$$
box_ns=dypdemo-box$tag
host_ns=dypdemo-host$tag
box_if=dypb$tag
host_if=dyph$tag
box_ip=192.0.2.10
host_ip=192.0.2.20
work=$(mktemp -d /tmp/dypdemo.XXXXXX)
daemon_pid=

cleanup() {
    trap - EXIT INT TERM
    stop_and_remove "$daemon_pid" "$box_ns" "$host_ns"
    rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "demo.sh: interrupted" >&2; exit 130' INT TERM

echo "== network: box $box_ip in $box_ns, host $host_ip in $host_ns"
ip netns add "$box_ns"
ip netns add "$host_ns"
ip link add "$host_if" netns "$host_ns" type veth peer name "$box_if" netns "$box_ns"
ip -n "$box_ns" addr add "$box_ip/24" brd + dev "$box_if"
ip -n "$host_ns" addr add "$host_ip/24" brd + dev "$host_if"
for ns in "$box_ns" "$host_ns"; do
    ip -n "$ns" link set lo up
done
ip -n "$box_ns" link set "$box_if" up
ip -n "$host_ns" link set "$host_if" up

cat >"$work/dypd.conf" <<EOF
product=DemoScanBox
hostname=demobox
netif=$box_if,!*
EOF

echo "== starting dypd -d in $box_ns with the simulated driver ($devices)"
DYPSIM_PRELOAD=$preload DYPSIM_DEVICES=$devices DYPD=$dypd DYPD_CONF=$work/dypd.conf \
    ip netns exec "$box_ns" unshare -m --propagation private sh "$root/scripts/sim-box.sh" \
    >"$work/dypd.log" 2>&1 &
daemon_pid=$!

if ! box_answers "$dypctl" "$host_ns" "$host_if" "$daemon_pid"; then
    echo "demo.sh: the daemon did not answer; its output:" >&2
    cat "$work/dypd.log" >&2
    exit 1
fi

step() {
    echo
    echo "\$ dypctl $*"
    ip netns exec "$host_ns" "$dypctl" "$@"
}

step discover --interface "$host_if"
step devices "$box_ip" --ex
step ports "$box_ip"
step port-name "$box_ip" --vid 0x2b7c --pid 0x00c2 --location H113
step status "$box_ip" scanner2
step connect "$box_ip" scanner2
step status "$box_ip" scanner2
step disconnect "$box_ip" scanner2
step keepalive "$box_ip" scanner2 --interval 0.5 --count 3

echo
echo "== daemon output"
sed 's/^/  /' "$work/dypd.log"
echo
echo "demo finished: every step succeeded"
