#!/usr/bin/env bash
# Runs the node timer: check_zyn_bench.sh ZYN_BENCH LAYERS_FOLDER [EMULATOR]. Every node is
# reported once under each method, as JSON that parses; what it cannot time it refuses.
set -euo pipefail
program=$(realpath "$1")
layers=$(realpath "$2")
emulator=${3:-}
# On Windows the library lies in the folder above the tools.
cd "$(dirname "$program")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "$*"
  head -5 "$work"/*
  exit 1
}
run() { # code, arguments...
  local code=0 wanted=$1
  shift
  $emulator "$program" "$@" --rounds 1 --ms 0.01 >"$work/out" 2>"$work/notes" || code=$?
  [ "$code" = "$wanted" ] || fail "zyn-bench $*: code $code for $wanted"
}
count() { grep -o "$1" "$work/out" | wc -l; }

nodes=$(grep -cv '^#' "$layers/ssd320.layers")
cp "$layers"/*.layers "$work"
for network in "" "$work/ssd320.layers"; do
  run 0 $network --methods 0,2 --json
  [ "$(count '"node":')" = "$nodes" ] || fail "$network: $(count '"node":') nodes for $nodes"
  # Both methods of every node, and of the whole network.
  [ "$(count '"min_us":[0-9]*[1-9.]')" = $((2 * nodes + 2)) ] || fail "$network: times are missing"
  if command -v python3 >/dev/null; then
    python3 -m json.tool "$work/out" >/dev/null || fail "$network: not JSON"
  fi
done
run 0 --methods 1
grep -q '^ *42 .*5x4x12' "$work/out" && grep -q 'whole network' "$work/out" || fail "no table"
run 2 "$work/small.layers"
grep -q 'nothing to read' "$work/notes" || fail "unconnected layers are not refused"
run 2 "$work/missing.layers"
run 2 --methods 3
run 2 --methods 2,
