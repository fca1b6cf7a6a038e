#!/usr/bin/env bash
# run.sh BUILD_DIR: measures the library against the others, pinned to one core, and
# prints one table of ratios with the bars they are to reach. Environment:
#   CORE=1     the core to pin to
#   ROUNDS=10  rounds of every measurement (peers and library in turn)
# The raw outputs stay in bench/results/.
set -euo pipefail
[ "${1:---help}" != --help ] || { sed -n '2,6s/^# //p' "$0"; exit 0; }
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)/bench/peers
out=$here/results/$(date +%Y%m%d-%H%M%S)
core=${CORE:-1} rounds=${ROUNDS:-10}
mkdir -p "$out"
run() { # name program args...
  local name=$1
  shift
  taskset -c "$core" "$@" --subject "$build/subject" >"$out/$name.txt" 2>&1 ||
    echo "$name: status $?, see $out/$name.txt"
}
for net in ssd320 pfld112; do
  layers=$here/layers/$net.layers
  size=320x240
  [ $net = pfld112 ] && size=112x112
  run "conv-$net" "$build/conv_peers" "$layers" --rounds "$rounds" --ms 2 --methods 2,1,-1 \
    --methods-3x3 3,0  # 3: fixed point
  run "net-$net" "$build/net_peers" "$layers" $size --runs $((30 * rounds)) --layers "$layers" \
    --net "$layers" --methods 2,1,0,3
done
run sgemm "$build/sgemm_peers" --rounds "$rounds" --ms 3
run image "$build/image_peers" --rounds "$rounds" --ms 5
run misc "$build/misc_peers" --rounds "$rounds" --ms 5
python3 "$here/table.py" "$out"
