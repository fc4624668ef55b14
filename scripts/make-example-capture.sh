#!/usr/bin/env bash
# Records a session in which dypctl runs every command against dypd with
# the simulated driver, as seen on the host's link. The dissector's test
# (tests/wireshark/dissector_test.cpp) reads such a capture together
# with what dypctl reported; docs/example.pcapng is the same capture, kept
# for users of tools/wireshark/dyp.lua.
#
#   scripts/make-example-capture.sh
#       builds into build-demo and writes docs/example.pcapng
#   scripts/make-example-capture.sh --build DIR --out OUT
#       uses the programs already built in DIR and writes into OUT:
#       capture.pcapng, devices.ini (the simulator's device file),
#       STEP.json (what dypctl --json printed, one file per step below),
#       dypsim.log (every request the simulated driver received), dypd.log
#
# The box (192.0.2.10, MAC 02:00:5e:00:53:0a) and the host (192.0.2.20,
# MAC 02:00:5e:00:53:14) live in two network namespaces joined by one veth
# pair; nothing leaves them, and both are removed on the way out, also when
# the script is interrupted. Needs root (namespaces, mounts, capturing).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

usage() {
    echo "usage: $0 [--build DIR --out DIR]" >&2
    exit 2
}
build=
out=
while [ $# -gt 0 ]; do
    case $1 in
    --build) [ $# -ge 2 ] || usage; build=$(realpath "$2"); shift 2 ;;
    --out) [ $# -ge 2 ] || usage; out=$(realpath -m "$2"); shift 2 ;;
    *) usage ;;
    esac
done
if [ -z "$build" ] && [ -n "$out" ] || [ -n "$build" ] && [ -z "$out" ]; then
    usage
fi
if [ "$(id -u)" -ne 0 ]; then
    echo "make-example-capture.sh: needs root (it makes network namespaces and captures)" >&2
    exit 2
fi

. scripts/lib.sh
if [ -z "$build" ]; then
    install_missing cmake g++ make libgtest-dev libgmock-dev iproute2 util-linux tshark tcpdump
    echo "== building (build-demo)"
    cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build-demo --target dypd dypctl dypsim_preload -j 2 >/dev/null
    build=$root/build-demo
fi
dypd=$build/dypd
dypctl=$build/tools/dypctl/dypctl
preload=$(find "$build/sim" -name 'libdypsim_preload*.so' | head -n1)
# A build for another ISA (scripts/cross.sh) runs its programs under
# qemu-user through tests/run-on-target: dypctl through a wrapper, dypd
# through scripts/sim-box.sh.
emulator=
[ -x "$build/tests/run-on-target" ] && emulator=$build/tests/run-on-target

tag=$$
box_ns=dypcap-box$tag
host_ns=dypcap-host$tag
box_ip=192.0.2.10
host_ip=192.0.2.20
work=$(mktemp -d /tmp/dypcap.XXXXXX)
results=${out:-$work/out}
mkdir -p "$results"
if [ -n "$emulator" ]; then
    printf '#!/bin/sh\nexec "%s" "%s" "$@"\n' "$emulator" "$dypctl" >"$work/dypctl"
    chmod +x "$work/dypctl"
    dypctl=$work/dypctl
fi
daemon_pid=
capture_pid=

cleanup() {
    trap - EXIT INT TERM
    stop_and_remove "$capture_pid $daemon_pid" "$box_ns" "$host_ns"
    rm -rf "$work"
}
trap cleanup EXIT
trap 'echo "make-example-capture.sh: interrupted" >&2; exit 130' INT TERM

# Link names are private to each namespace, so they need no tag.
ip netns add "$box_ns"
ip netns add "$host_ns"
ip link add host0 netns "$host_ns" address 02:00:5e:00:53:14 type veth \
    peer name box0 netns "$box_ns" address 02:00:5e:00:53:0a
ip -n "$box_ns" addr add "$box_ip/24" brd + dev box0
ip -n "$host_ns" addr add "$host_ip/24" brd + dev host0
for ns in "$box_ns" "$host_ns"; do
    ip -n "$ns" link set lo up
done
ip -n "$box_ns" link set box0 up
ip -n "$host_ns" link set host0 up
# Wireshark takes UDP to ports 33434-33534 for traceroute and flags it;
# dypctl's ports are drawn from above that range.
ip netns exec "$host_ns" sysctl -qw net.ipv4.ip_local_port_range="40000 60999"

# The example devices, and five more, so that both device lists need more
# than one 512-byte window. scanner4 shows the edges: a description longer
# than the 63 characters a list entry keeps, a serial longer than the 64
# bytes of its field, a holder that is not this host, a location with no
# port path (S2M is sysfs device 2); scanner5 has no serial at all.
devices=$results/devices.ini
cat examples/devices.ini - >"$devices" <<'EOF'

[scanner4]
manufacturer=Fabrikam Document Systems International
product=HighVolume Production Duplex 9000
vendor_id=0x0a5f
product_id=0x9000
location=S2M
aux2=7
serial=FAB9000-0123456789-ABCDEFGHIJKLMNOPQRSTUVWXYZ-abcdefghijklmnopqrstuvwxyz
held_by=198.18.0.7:5000
held_mac=02:00:5e:00:53:77

[scanner5]
manufacturer=Litware
product=SlimScan
vendor_id=0x1a2b
product_id=0x0005
location=L115

[scanner6]
manufacturer=Tailspin Imaging
product=Archive 600
vendor_id=0x1f3a
product_id=0x0600
location=H1161
aux1=3
serial=TS600-0006

[scanner7]
manufacturer=Wingtip Devices
product=PhotoPass 7
vendor_id=0x2c00
product_id=0x0707
location=H117
status_flag=1
serial=WD-PP7-7777

[scanner8]
manufacturer=Adatum Corp
product=CardReader Eight
vendor_id=0x3d3d
product_id=0x0808
location=F118
aux1=255
aux2=128
serial=AD8-00000008
EOF

cat >"$work/dypd.conf" <<EOF
product=DemoScanBox
hostname=demobox
netif=box0
portnum=19540,19541
ds_port=19540
EOF

DYPSIM_PRELOAD=$preload DYPSIM_DEVICES=$devices DYPSIM_LOG=$results/dypsim.log \
    DYPD=$dypd DYPD_CONF=$work/dypd.conf DYPD_EMULATOR=$emulator \
    ip netns exec "$box_ns" unshare -m --propagation private sh "$root/scripts/sim-box.sh" \
    >"$results/dypd.log" 2>&1 &
daemon_pid=$!

# Ready when the box answers discovery (before the capture starts).
if ! box_answers "$dypctl" "$host_ns" host0 "$daemon_pid"; then
    echo "make-example-capture.sh: the daemon did not answer; its output:" >&2
    cat "$results/dypd.log" >&2
    exit 1
fi

# tcpdump writes each packet as it comes (-U --immediate-mode); the
# capture becomes pcapng afterwards.
raw_capture=$work/capture.pcap
ip netns exec "$host_ns" tcpdump -i host0 -n -U --immediate-mode -Z root -w "$raw_capture" \
    udp and ip 2>"$work/tcpdump.err" &
capture_pid=$!
wait_for() { # PATTERN FILE: up to 5 s
    for _ in $(seq 1 100); do
        grep -q "$1" "$2" 2>/dev/null && return 0
        kill -0 "$capture_pid" 2>/dev/null || return 1
        sleep 0.05
    done
    return 1
}
if ! wait_for "listening on" "$work/tcpdump.err"; then
    echo "make-example-capture.sh: tcpdump did not start:" >&2
    cat "$work/tcpdump.err" >&2
    exit 1
fi

# step NAME EXPECTED_EXIT_STATUS DYPCTL_ARGS...: runs dypctl --json in the
# host's namespace and keeps what it printed in NAME.json.
step() {
    local name=$1 expected=$2 status=0
    shift 2
    ip netns exec "$host_ns" "$dypctl" "$@" --json >"$results/$name.json" || status=$?
    if [ "$status" -ne "$expected" ]; then
        echo "make-example-capture.sh: dypctl $* exited $status, expected $expected" >&2
        exit 1
    fi
}

step discover 0 discover --interface host0 --timeout 0.5
step discover-19541 0 discover --interface host0 --port 19541 --timeout 0.5
step devices 0 devices "$box_ip"
step devices-ex 0 devices "$box_ip" --ex
step status-scanner1 0 status "$box_ip" scanner1
step status-unknown 1 status "$box_ip" nosuchscanner
step ports 0 ports "$box_ip"
step port-name 0 port-name "$box_ip" --vid 0x1f3a --pid 0x0410 --location H112
step port-name-none 1 port-name "$box_ip" --vid 0x1f3a --pid 0x9999 --location H112
step connect 0 connect "$box_ip" scanner2 --port 5000 --options 3
step status-scanner2 0 status "$box_ip" scanner2
step connect-refused 1 connect "$box_ip" scanner4
step disconnect 0 disconnect "$box_ip" scanner2
step keepalive 0 keepalive "$box_ip" scanner1 scanner2

# The keep-alive echo is the last packet; stop once tcpdump has it.
for _ in $(seq 1 100); do
    [ -n "$(tcpdump -r "$raw_capture" -n udp src port 49235 2>/dev/null)" ] && break
    sleep 0.05
done
kill -INT "$capture_pid"
wait "$capture_pid" || true
capture_pid=
capture=$results/capture.pcapng
editcap -F pcapng "$raw_capture" "$capture"

if [ -z "$out" ]; then
    cp "$capture" docs/example.pcapng
    echo "wrote docs/example.pcapng ($(stat -c %s docs/example.pcapng) bytes)"
fi
