#!/usr/bin/env bash
# run.sh BUILD_DIR: measures the library against the others, pinned to one core, and
# prints one table of ratios with the bars they are to reach. Environment:
#   CORE=1     the core to pin to
#   ROUNDS=5   rounds of every measurement (peers and library in turn)
#   ZYN_MODEL_DIR  with ssd320.onnx in it: the trained detector through OpenCV, too
# The raw outputs stay in bench/results/.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)/bench/peers
out=$here/results/$(date +%Y%m%d-%H%M%S)
core=${CORE:-1} rounds=${ROUNDS:-5}
mkdir -p "$out"
run() { # name program args...
  local name=$1
  shift
  taskset -c "$core" "$@" >"$out/$name.txt" 2>&1 || echo "$name: status $?, see $out/$name.txt"
}
for net in ssd320 pfld112; do
  run "conv-$net" "$build/conv_peers" "$here/layers/$net.layers" --rounds "$rounds" --ms 4 \
    --subject "$build/subject" --methods "${METHODS:-2}"
  size=320x240
  [ $net = pfld112 ] && size=112x112
  run "net-$net" "$build/net_peers" "$here/layers/$net.layers" $size --runs $((20 * rounds)) \
    --layers "$here/layers/$net.layers" --subject "$build/subject" --net "$here/layers/$net.layers"
done
run sgemm "$build/sgemm_peers" --rounds "$rounds" --ms 6 --subject "$build/subject"
python3 "$here/table.py" "$out"
