#!/usr/bin/env bash
# Writes the bash completion of dypctl to standard output, read from the
# help texts of the dypctl given as $1 (run through the emulator in $2, if
# any), so that it always offers what that dypctl accepts.
#
# Commands are the first words of the lines under a "commands:" or
# "Subcommands:" heading of `dypctl --help`. A command's options are the
# --words of `dypctl COMMAND --help`; when that prints the general help
# again, they are the --words of the command's own line there plus those
# of the usage line (the options every command takes).
set -euo pipefail
dypctl=$1
emulator=${2:-}

run_help() {
    # shellcheck disable=SC2086 # the emulator may carry options
    $emulator "$dypctl" "$@" --help 2>&1
}

options_in() {
    { grep -oE -- '(^|[][ ,|])--[a-z][a-z0-9-]*' || true; } | sed 's/^[][ ,|]*//' | sort -u |
        tr '\n' ' '
}

general=$(run_help)
commands=$(awk '
    /^[A-Za-z ]*[Cc]ommands:[[:space:]]*$/ { inside = 1; next }
    inside && /^[[:space:]]*$/ { inside = 0 }
    inside && /^[[:space:]]+[a-z]/ { print $1 }' <<<"$general" | sort -u | tr '\n' ' ')
if [ -z "$commands" ]; then
    echo "dypctl-completion.sh: no commands found in the output of $dypctl --help" >&2
    exit 1
fi
usage_options=$(grep -iE '^usage:' <<<"$general" | options_in)

cat <<EOF
# bash completion for dypctl, generated from its help texts at build time.

_dypctl_options() {
    case \$1 in
EOF
for command in $commands; do
    text=$(run_help "$command")
    if [ "$text" = "$general" ]; then
        options="$({ grep -E "^[[:space:]]+$command( |\$)" || true; } <<<"$general" | options_in)$usage_options--help"
    else
        options=$(options_in <<<"$text")
    fi
    printf '    %s) echo "%s" ;;\n' "$command" "$(tr ' ' '\n' <<<"$options" | sort -u | xargs)"
done
cat <<EOF
    esac
}

_dypctl() {
    local cur=\${COMP_WORDS[COMP_CWORD]} prev=\${COMP_WORDS[COMP_CWORD-1]}
    local command="" word
    for word in "\${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case \$word in -*) ;; *) command=\$word; break ;; esac
    done
    if [ "\$prev" = "--interface" ]; then
        mapfile -t COMPREPLY < <(compgen -W "\$(ls /sys/class/net 2>/dev/null)" -- "\$cur")
        return
    fi
    if [ -z "\$command" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$commands--help" -- "\$cur")
    elif [[ \$cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "\$(_dypctl_options "\$command")" -- "\$cur")
    fi
}
complete -F _dypctl dypctl
EOF
