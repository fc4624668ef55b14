#!/usr/bin/env bash
# Checks the hardening of a built daemon from its ELF headers:
#
#   scripts/check-hardening.sh path/to/dypd
#
# PIE, full RELRO (GNU_RELRO and BIND_NOW), a stack that is not executable,
# the stack protector, _FORTIFY_SOURCE's checked calls (glibc only: musl
# has none), no unwind tables of its own, and no library but the C
# library. Prints one line per property; exits 1 when one is missing.
set -uo pipefail

binary=${1:?usage: scripts/check-hardening.sh BINARY}
readelf=readelf
command -v readelf >/dev/null || { echo "readelf is missing" >&2; exit 2; }

headers=$($readelf -hlW "$binary") || exit 2
dynamic=$($readelf -dW "$binary")
symbols=$($readelf --dyn-syms -W "$binary")
sections=$($readelf -SW "$binary")
status=0

check() { # name, verdict (0 = present), detail
    if [ "$2" -eq 0 ]; then
        echo "ok      $1"
    else
        echo "MISSING $1${3:+ ($3)}"
        status=1
    fi
}
has() { grep -qE "$2" <<<"$1"; echo $?; }

check "PIE" "$(has "$dynamic" 'FLAGS_1.*PIE')"
check "RELRO" "$(has "$headers" '^ *GNU_RELRO ')"
check "BIND_NOW" "$(has "$dynamic" '\(FLAGS\).*BIND_NOW|FLAGS_1.*NOW')"
stack=$(grep -E '^ *GNU_STACK ' <<<"$headers")
check "non-executable stack" "$( [ -n "$stack" ] && ! grep -qE 'RWE|  E ' <<<"$stack"; echo $?)" "${stack:-no GNU_STACK}"
check "stack protector" "$(has "$symbols" ' UND __stack_chk_fail')"
interpreter=$(grep -o 'interpreter: [^]]*' <<<"$headers")
if grep -q musl <<<"$interpreter"; then
    echo "n/a     _FORTIFY_SOURCE (musl has no checked functions)"
else
    check "_FORTIFY_SOURCE" "$(has "$symbols" ' UND __[a-z_]+_chk(@|$)')"
fi
# The C start files bring a few unwind entries of their own (_start and
# the like); the daemon's hundred-odd functions would bring one each.
# (Only .eh_frame counts: .debug_frame of a -g build is no unwind table.)
fdes=$($readelf --debug-dump=frames "$binary" 2>/dev/null |
    awk '/^Contents of the / { in_eh = ($4 == ".eh_frame") } in_eh && / FDE / { n++ } END { print n + 0 }')
exidx=$(( 0x$(sed -n 's/.* \.ARM\.exidx  *ARM_EXIDX  *[0-9a-f]* [0-9a-f]* \([0-9a-f]*\) .*/\1/p' <<<"$sections") / 8 + 0 ))
check "no unwind tables" "$( [ $((fdes + exidx)) -le 8 ]; echo $?)" "$((fdes + exidx)) unwind entries"
# glibc's MIPS loader (ld.so.1) holds the stack protector's guard word.
needed=$(sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' <<<"$dynamic" | tr '\n' ' ')
others=$(tr ' ' '\n' <<<"$needed" | grep -vxE 'libc\.so(\.6)?|ld\.so\.1|ld-linux[-a-z0-9_]*\.so\.[0-9]+|' | tr '\n' ' ')
check "only the C library needed: $needed" "$( [ -z "$others" ]; echo $?)" "also $others"
exit $status
