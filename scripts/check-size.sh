#!/usr/bin/env bash
# Fails when the stripped daemon is larger than its budget:
#
#   scripts/check-size.sh path/to/dypd BUDGET_BYTES [STRIP]
#
# STRIP is the target's strip program (default: strip).
set -euo pipefail
binary=${1:?usage: scripts/check-size.sh BINARY BUDGET [STRIP]}
budget=${2:?usage: scripts/check-size.sh BINARY BUDGET [STRIP]}
strip=${3:-strip}

stripped=$(mktemp)
trap 'rm -f "$stripped"' EXIT
"$strip" -o "$stripped" "$binary"
size=$(stat -c %s "$stripped")
echo "stripped $binary: $size bytes, budget $budget"
[ "$size" -le "$budget" ]
