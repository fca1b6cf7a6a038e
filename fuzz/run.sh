#!/usr/bin/env bash
# run.sh BUILD_DIR SECONDS: every fuzz target for that long, beginning with its seeds in
# fuzz/corpus/NAME. What it discovers stays in BUILD_DIR/fuzz/corpus; an input that breaks
# something is named, kept and makes the exit status 1.
set -u
build=${1:?usage: run.sh BUILD_DIR SECONDS} seconds=${2:?usage: run.sh BUILD_DIR SECONDS}
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$build" && pwd)
status=0 found=0
for source in "$here"/fuzz_*.cpp; do
  name=$(basename "$source" .cpp)
  grown=$build/fuzz/corpus/$name findings=$build/fuzz/findings/$name
  mkdir -p "$grown" "$findings" "$here/corpus/$name"
  log=$build/fuzz/$name.log
  # Targets report failures to standard output all the time: that goes nowhere.
  if "$build/fuzz/$name" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -artifact_prefix="$findings/" -print_final_stats=1 \
      "$grown" "$here/corpus/$name" >/dev/null 2>"$log"; then
    echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs, nothing found"
  else
    echo "$name: FOUND SOMETHING, see $log"
    tail -n 40 "$log"
    status=1
  fi
  found=$((found + 1))
done
[ "$found" -gt 0 ] || { echo "no fuzz targets"; exit 1; }
exit $status
