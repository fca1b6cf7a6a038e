#!/usr/bin/env bash
# run.sh BUILD_DIR SECONDS [TARGET]: every fuzz target (or fuzz_TARGET alone) for that long,
# two at a time, beginning with its inputs in fuzz/corpus. What it discovers stays in
# BUILD_DIR/fuzz/corpus; an input that breaks something is named, kept and makes the exit
# status 1. SECONDS 0: the committed inputs alone. MERGE=1 makes them the smallest set
# that reaches what all inputs reach.
set -u
build=${1:?usage: run.sh BUILD_DIR SECONDS [TARGET]} seconds=${2:?usage: run.sh BUILD_DIR SECONDS [TARGET]}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
limits="-timeout=10 -rss_limit_mb=2048 -max_len=4096"

attack() { # name
  local name=$1 log=$build/fuzz/$1.log until=-max_total_time=$seconds
  local seeds=$here/corpus/$name grown=$build/fuzz/corpus/$name findings=$build/fuzz/findings/$name
  mkdir -p "$grown" "$findings" "$seeds"
  [ "$seconds" -gt 0 ] || until=-runs=0
  # Targets report failures to standard output all the time: that goes nowhere.
  if ! "$build/fuzz/$name" $limits $until -artifact_prefix="$findings/" -print_final_stats=1 \
      "$grown" "$seeds" >/dev/null 2>"$log"; then
    echo "$name: FOUND SOMETHING, see $log"
    tail -n 40 "$log"
    return 1
  fi
  echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions, nothing found"
  if [ "${MERGE:-0}" = 1 ]; then
    mkdir "$seeds.merged"
    "$build/fuzz/$name" $limits -merge=1 "$seeds.merged" "$seeds" "$grown" >/dev/null 2>"$log" || return 1
    rm -r "$seeds"
    mv "$seeds.merged" "$seeds"
  fi
}

status=0 targets=()
for source in "$here"/fuzz_${3:-*}.cpp; do
  [ -f "$source" ] || { echo "no such target"; exit 1; }
  targets+=("$(basename "$source" .cpp)")
done
for ((i = 0; i < ${#targets[@]}; i += 2)); do
  attack "${targets[i]}" &
  [ $((i + 1)) = ${#targets[@]} ] || attack "${targets[i + 1]}" || status=1
  wait $! || status=1
done
exit $status
