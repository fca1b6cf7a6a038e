#!/usr/bin/env bash
# run.sh BUILD_DIR SECONDS [TARGET]: every fuzz target (or fuzz_TARGET alone) for that long,
# two at a time, beginning with its inputs in fuzz/corpus. What it discovers stays in
# BUILD_DIR/fuzz/corpus; an input that breaks something is named, kept and makes the exit
# status 1. SECONDS 0: the committed inputs alone. MERGE=1 makes them a small set
# that reaches what all inputs reach. ZYN_GUARD_PAGES=1 puts the blocks of every input before
# inaccessible pages, not only those of a share.
set -u
build=${1:?usage: run.sh BUILD_DIR SECONDS [TARGET]} seconds=${2:?usage: run.sh BUILD_DIR SECONDS [TARGET]}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
# Short inputs, and no statistics of rare features: a target runs several times as often.
limits="-timeout=10 -rss_limit_mb=2048 -entropic=0"
export ASAN_OPTIONS=quarantine_size_mb=16:malloc_context_size=6${ASAN_OPTIONS:+:$ASAN_OPTIONS}

attack() { # name
  local name=$1 log=$build/fuzz/$1.log until=-max_total_time=$seconds longest=400
  local seeds=$here/corpus/$name grown=$build/fuzz/corpus/$name findings=$build/fuzz/findings/$name
  mkdir -p "$grown" "$findings" "$seeds"
  [ "$name" != fuzz_bmp ] || longest=4096
  [ "$seconds" -gt 0 ] || until=-runs=0
  # Targets report failures to standard output all the time: that goes nowhere.
  if ! "$build/fuzz/$name" $limits -max_len=$longest $until -artifact_prefix="$findings/" -print_final_stats=1 \
      "$grown" "$seeds" >/dev/null 2>"$log"; then
    echo "$name: FOUND SOMETHING, see $log"
    tail -n 40 "$log"
    return 1
  fi
  echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") executions, nothing found"
  if [ "${MERGE:-0}" = 1 ]; then
    mkdir "$seeds.merged"
    "$build/fuzz/$name" $limits -max_len=$longest -use_counters=0 -use_cmp=0 -merge=1 "$seeds.merged" "$seeds" "$grown" >/dev/null 2>"$log" || return 1
    for input in "$seeds.merged"/*; do mv "$input" "$input.bin"; done
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
