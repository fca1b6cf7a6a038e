#!/usr/bin/env bash
# run.sh BUILD_DIR [quick]: measures the library against the others, pinned to one core, and
# prints one table of ratios with the bars they are to reach; quick: fewer rounds, for a look.
# Environment:
#   CORE=1     the core to pin to
#   ROUNDS=10  rounds of every measurement (peers and library in turn); quick: 3
# The raw outputs stay in bench/results/.
set -euo pipefail
[ "${1:---help}" != --help ] || { sed -n '2,7s/^# //p' "$0"; exit 0; }
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)/bench/peers
out=$here/results/$(date +%Y%m%d-%H%M%S)
rounds=10
[ "${2:-}" != quick ] || rounds=3
core=${CORE:-1} rounds=${ROUNDS:-$rounds}
mkdir -p "$out"
run() { # name program args...
  local name=$1
  shift
  taskset -c "$core" "$@" --subject "$build/subject" >"$out/$name.txt" 2>&1 ||
    echo "$name: status $?, see $out/$name.txt"
}
nets="ssd320 pfld112"
for layers in "$here"/layers/*.layers; do
  net=$(basename "$layers" .layers)
  case $net in small | shapes | ssd320 | pfld112) ;; *) nets+=" $net" ;; esac
done
for net in $nets shapes; do  # methods: see README.md
  layers=$here/layers/$net.layers
  run "conv-$net" "$build/conv_peers" "$layers" --rounds "$rounds" --again 3 --ms 2 \
    --methods 2,1,4,5,0,3,-1
  [ $net = shapes ] || run "net-$net" "$build/net_peers" "$layers" --runs $((30 * rounds)) \
    --layers "$layers" --net "$layers" --methods 2,1,0,3,-1
done
run op "$build/op_peers" --rounds "$rounds" --again 3 --ms 3
run sgemm "$build/sgemm_peers" --rounds "$rounds" --ms 3
run image "$build/image_peers" --rounds "$rounds" --ms 5
run misc "$build/misc_peers" --rounds "$rounds" --ms 5
python3 "$here/table.py" "$out" $nets shapes
