#!/usr/bin/env bash
# Runs the node timer: check_zyn_bench.sh ZYN_BENCH LAYERS_FOLDER [EMULATOR]. Every node is
# reported once under each method, as JSON that parses; what it cannot time it refuses.
set -euo pipefail
program=$(realpath "$1")
layers=$(realpath "$2")
emulator=${3:-}
source "$(dirname "$0")/support/program.sh"
# On Windows the library lies in the folder above the tools.
cd "$(dirname "$program")/.."
bench() { run "$1" "$2" "$program" "${@:3}" --rounds 1 --ms 0.01; }
found() { grep -o "$1" "$work/out" | wc -l; }

nodes=$(grep -cv '^#' "$layers/ssd320.layers")
cp "$layers"/*.layers "$work"
for network in ssd320 "$work/ssd320.layers"; do
  bench 0 '' "$network" --methods 0,2 --json
  [ "$(found '"node":')" = "$nodes" ] || fail "$network: $(found '"node":') nodes for $nodes"
  # Both methods of every node, and of the whole network.
  [ "$(found '"min_us":[0-9]*[1-9.]')" = $((2 * nodes + 2)) ] || fail "$network: times are missing"
  if command -v python3 >/dev/null; then
    python3 -m json.tool "$work/out" >/dev/null || fail "$network: not JSON"
  fi
done
bench 0 'whole network' ssd320 --methods 1
[ "$(count '^ *42 .*5x4x12')" = 1 ] || fail "no table"
bench 2 'nothing to read' "$work/small.layers"
bench 2 'cannot read' "$work/missing.layers"
bench 2 'not 3' ssd320 --methods 3
bench 2 'not 2,.?$' ssd320 --methods 2,
line 2 "$program" --methods 2
run 0 '^usage: ' "$program"
