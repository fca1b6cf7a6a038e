#!/usr/bin/env bash
# The tools on network files: check_network_tools.sh TOOLS_FOLDER SOURCE_FOLDER [EMULATOR].
# numpy makes networks, pictures and arrays, and computes what the tools should give; bad files
# are refused with a reason.
set -euo pipefail
tools=$(realpath "$1")
source=$(realpath "$2")
emulator=${3:-}
source "$(dirname "$0")/support/program.sh"
if ! python=$(command -v /usr/bin/python3) || ! "$python" -c 'import numpy' 2>/dev/null; then
  echo "no numpy: passed over"
  exit 0
fi
files() { PYTHONPATH=$source/python "$python" -B "$source/tests/network_files.py" "$1" "$work"; }
files make
# On Windows the library lies in the folder above the tools.
cd "$tools/.."
suffix=$([ -e "$tools/zyn-run" ] || echo .exe)
info=$tools/zyn-info$suffix runner=$tools/zyn-run$suffix bench=$tools/zyn-bench$suffix quant=$tools/zyn-quant$suffix
runs() { run "$1" "$2" "$runner" "${@:3}"; } # code, what zyn-run must say, arguments...

# What is there.
run 0 'net.zyn: 6 nodes, 224 parameters, 10368 multiply-adds' "$info" "$work/net.zyn" --method 0
[ "$(count '^ +3 CONV_ACT +8 x 6 x 4 +0 +112 +5184  act')" = 1 ] || fail "no row of the node"
[ "$(count 'image +8 x 6 x 3 +numpy \(1, 3, 6, 8\), bgr, resize none, \(byte - 10\) \* 0.5 ')" = 1 ] || fail "no input"
run 0 . "$info" "$work/net.zyn" --json
"$python" -c 'import json, sys
d = json.load(sys.stdin)
assert d["metadata"] == {"origin": "a \"test\"\n"} and d["inputs"][0]["mean"] == [10, 20, 30]
assert [n["multiply_adds"] for n in d["nodes"]] == [0, 0, 0, 5184, 5184, 0]
assert d["memory"]["total"] > 0' <"$work/out" || fail "not the JSON that was expected"
run 1 'no fraction bits' "$info" "$work/net.zyn" --fixed
run 1 'no network file' "$info" "$work/whole.bmp"
line 2 "$info" --method 3

# What comes out, by kind of input.
runs 0 'sum_1 \(1, 4, 6, 8\): ' "$work/net.zyn" "$work/whole.bmp"
runs 0 'first run .* 3 runs: fastest' "$work/net.zyn" "$work/whole.bmp" --runs 3 --out "$work/bmp"
runs 0 . "$work/net.zyn" "image=$work/bytes.npy" --out "$work/bytes" --method exact
runs 0 . "$work/net.zyn" "$work/floats.npy" --out "$work/floats" --node 4
runs 0 'act\.npy' "$work/net.zyn" "$work/floats.f32" --out "$work/raw" --keep-all
for rule in none:whole border:wide crop:tall grey:whole; do
  runs 0 . "$work/${rule%:*}.zyn" "$work/${rule#*:}.bmp" --out "$work/${rule%:*}"
done
run 0 ' 0 values wrapped' "$quant" --model "$work/net.zyn" --out "$work/fixed.zyn" "$work/whole.bmp" "$work/bytes.npy"
runs 0 . "$work/fixed.zyn" "$work/whole.bmp" --fixed --out "$work/fixed"
run 0 'image .* q [0-9]' "$info" "$work/fixed.zyn" --fixed
files check
runs 1 'wide.bmp has 8 x 3 pixels, input .image. has 8 x 6' "$work/net.zyn" "$work/wide.bmp"
runs 1 'short.npy has the shape \(3, 5, 8\), input .image. has \(1, 3, 6, 8\)' "$work/net.zyn" "$work/short.npy"
runs 1 'neither little-endian float32 nor uint8' "$work/net.zyn" "$work/doubles.npy"
runs 1 'not in C order' "$work/net.zyn" "$work/fortran.npy"
runs 1 'does not hold exactly the 144 elements' "$work/net.zyn" "$work/cut.npy"
runs 1 'not finite' "$work/net.zyn" "$work/nan.f32"
runs 1 'cannot be read' "$work/net.zyn" "$work/missing.f32"
runs 1 'no more than 1 inputs' "$work/net.zyn" "$work/floats.f32" "$work/floats.f32"
runs 1 "no operator 'none'" "$work/net.zyn" "$work/floats.f32" --out "$work/none" --node none
runs 1 'cannot be made or written' "$work/missing.zyn" "$work/floats.f32" --out "$work/net.zyn/folder"
runs 1 'cannot be opened' "$work/missing.zyn" "$work/floats.f32"
line 2 "$runner" "$work/net.zyn"

# Times, and the methods of the fastest.
run 0 . "$bench" "$work/net.zyn" --rounds 1 --ms 0.01 --json --methods 1 --store "$work/stored.zyn"
"$python" -m json.tool "$work/out" >/dev/null || fail "zyn-bench: not JSON"
run 0 . "$info" "$work/stored.zyn"
[ "$(count '^ +[34] CONV(_ACT)? +8 x 6 x 4 +1 ')" = 2 ] || fail "the methods are not stored"
run 0 'method auto: us' "$bench" "$work/stored.zyn" --rounds 1 --ms 0.01
run 1 'cannot be written' "$bench" "$work/missing.zyn" --store "$work/no/folder.zyn"
run 1 'cannot be opened' "$bench" "$work/missing.zyn"
run 2 'for network files' "$bench" ssd320 --store "$work/x.zyn"
run 2 'for the detector' "$quant" --model "$work/net.zyn" --out "$work/x.zyn" --vary "$work/whole.bmp"
run 1 'has the shape' "$quant" --model "$work/net.zyn" --out "$work/x.zyn" "$work/short.npy"
[ ! -e "$work/x.zyn" ] || fail "zyn-quant: a file without a choice"
