# The box's side of scripts/demo.sh and scripts/make-example-capture.sh, run
# with sh inside the box's network namespace and a private mount namespace
# (unshare -m --propagation private): gives dypd its own /var/run for the pid
# file and a /sys/bus holding only the serial numbers of the simulated
# devices, where the daemon looks for them, then runs dypd in the
# foreground with the simulated driver.
#
# Environment: DYPD (the daemon), DYPD_CONF (its configuration file),
# DYPSIM_PRELOAD (the simulator library), DYPSIM_DEVICES (the device file);
# DYPSIM_LOG passes through to the simulator; DYPD_EMULATOR, when set, is
# the program that runs a daemon built for another ISA.
#
# A location names its sysfs device by the bus character, '-', then the
# port path joined by '.', up to an 'M' (H112 is 1-1.2, S2M is 2); the class
# letter is not part of the name.
set -eu
mount -t tmpfs tmpfs /var/run
if mount -t tmpfs tmpfs /sys/bus 2>/dev/null; then
    awk -F= '
        /^\[/ { loc = ""; serial = "" }
        $1 == "location" { loc = $2 }
        $1 == "serial" { serial = $2 }
        loc != "" && serial != "" {
            name = substr(loc, 2, 1)
            rest = substr(loc, 3)
            sep = "-"
            for (i = 1; i <= length(rest); i++) {
                c = substr(rest, i, 1)
                if (c == "M") break
                name = name sep c
                sep = "."
            }
            print name, serial
            loc = ""; serial = ""
        }' "$DYPSIM_DEVICES" | while read -r dir serial; do
        mkdir -p "/sys/bus/usb/devices/$dir"
        printf '%s\n' "$serial" >"/sys/bus/usb/devices/$dir/serial"
    done
fi
if [ -n "${DYPD_EMULATOR:-}" ]; then
    # A daemon built for another ISA runs under qemu-user through the build's
    # tests/run-on-target, which hands the simulator to the guest.
    exec env DYPTEST_TARGET_PRELOAD="$DYPSIM_PRELOAD" "$DYPD_EMULATOR" "$DYPD" -d -f "$DYPD_CONF"
fi
exec env LD_PRELOAD="$DYPSIM_PRELOAD" "$DYPD" -d -f "$DYPD_CONF"
