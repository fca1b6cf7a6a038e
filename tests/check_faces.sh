#!/usr/bin/env bash
# Runs the example: check_faces.sh DETECT_FACES ZYN_QUANT [EMULATOR]. Its exit codes and its
# stand-ins first; then, with the folder in ZYN_MODEL_DIR, the faces in two photos, in float
# and in fixed point with fraction bits chosen on flips, crops and brightness changes of
# the photos. Every known face must be found once (overlap above 0.95, in fixed point
# 0.9; score within 0.02), and nothing else.
set -euo pipefail
program=$(realpath "$1")
quant=$(realpath "$2")
emulator=${3:-}
models=${ZYN_MODEL_DIR:+$(realpath "$ZYN_MODEL_DIR")}
unset ZYN_MODEL_DIR
source "$(dirname "$0")/support/program.sh"
# On Windows the library lies in the folder above the examples.
cd "$(dirname "$program")/.."

quantises() { run "$1" "$2" "$quant" "${@:3}"; } # code, what zyn-quant must say, arguments...
detects() { # code, what the example must say, arguments...
  run "$1" "$2" "$program" --verbose "${@:3}"
  [ "$1" = 2 ] || grep -q '^library memory in use at exit: 0 bytes' "$work/notes" || fail "memory is lost, said:"
}

detects 0 'means nothing' --draw "$work/generated.bmp"
[ -s "$work/generated.bmp" ] || fail "nothing drawn"
detects 0 'means nothing' "$work/generated.bmp"
detects 1 'cannot be read as a BMP file' "$work/missing.bmp"
detects 1 'not an ssd320 model' --model "$work/generated.bmp"
detects 2 usage --method 3
# A picture that cannot be written is noticed before the photo is looked for.
for picture in "$work/picture.jpg" "$work/no/folder.bmp"; do
  detects 1 'cannot be written' --draw "$picture" "$work/missing.bmp"
done
line 2 "$program" one.bmp two.bmp
line 2 "$quant" --model m
quantises 2 'margin' --model m --out q --margin 0.5 x.bmp
quantises 1 'not an ssd320 model' --model "$work/generated.bmp" --out "$work/q" x.bmp
[ ! -e "$work/q" ] || fail "zyn-quant: a list without a choice"
quantises 1 'cannot be written' --model "$work/missing" --out "$work/no/list" x.bmp
# A list is whole or refused: q of 7 throughout, then with one line changed.
lists() { # code, what must be said, what to do to the list...
  seq 0 42 | sed 's/$/ 7/' | "${@:3}" >"$work/list.q"
  detects "$1" "$2" --q-list "$work/list.q" "$work/generated.bmp"
}
lists 0 'fixed point' sed '5s/$/ # said of it\r/'
for change in 8d 8p '8s/7$/16/' '8s/7$/-1/' '8s/7$//' '8s/$/ x/' '8s/^/x/' '$s/42/43/'; do
  lists 1 'no list of fraction bits' sed "$change"
done
lists 1 'no list of fraction bits' head -c -1

# A layer list: 116 words of 1.0 and their digest are a model, 128 of them a sample.
printf '2 4 8 8 3 1 1 1\n4 4 8 8 3 1 1 4\n' >"$work/net.layers"
words() { for ((i = 0; i < $1; i++)); do printf '\x00\x00\x80\x3f'; done; }
words 128 >"$work/in.f32"
words 116 >"$work/net.zynm"
words 5 >"$work/short.f32"
printf "$(md5sum <"$work/net.zynm" | cut -c1-32 | sed 's/../\\x&/g')" >>"$work/net.zynm"
listed=(--layers "$work/net.layers" --out "$work/net.q")
quantises 0 ' 0 values wrapped' "${listed[@]}" --model "$work/net.zynm" "$work/in.f32"
# 1.5 times 1, 2 * 9 + 1 and 9 * 19 + 1 in 16 bits.
[ "$(grep -v '#' "$work/net.q" | tr -d '\r' | tr '\n' ' ')" = '0 14 2 10 4 6 ' ] || { cat "$work/net.q"; exit 1; }
quantises 1 'not a model of these layers' "${listed[@]}" --model "$work/in.f32" "$work/in.f32"
quantises 1 'does not hold the 128 numbers' "${listed[@]}" --model "$work/net.zynm" "$work/short.f32"
quantises 2 'for the detector' "${listed[@]}" --model "$work/net.zynm" --vary "$work/in.f32"

if [ -z "$models" ]; then
  echo "ZYN_MODEL_DIR is not set: the check with the trained model is passed over"
  exit 0
fi
photos="$models/photo_a.bmp $models/photo_b.bmp"
quantises 0 ' 0 values wrapped' --model "$models/ssd320.zynm" --out "$work/q.txt" --vary $photos
tr -d '\r' <"$work/q.txt" | sed 's/^1 .*/1 0/; s/^2 .*/2 15/' >"$work/high.q"
detects 1 'cannot be prepared' --model "$models/ssd320.zynm" --q-list "$work/high.q" "$work/generated.bmp"
quantises 1 'node 1: its values reach' --model "$models/ssd320.zynm" --out "$work/none" --margin 1e6 $photos

check() { # photo, least overlap, options of the example...
  local photo=$1 least=$2
  shift 2
  local bmp=$models/$photo.bmp
  detects 0 'boxes in a photo' --model "$models/ssd320.zynm" --draw "$work/$photo.bmp" "$@" "$bmp"
  [ "$(stat -L -c %s "$work/$photo.bmp")" = "$(stat -L -c %s "$bmp")" ] || fail "$photo: no picture"
  read -r width height < <(od -An -td4 -j18 -N8 "$bmp")
  tr -d '\r' <"$work/out" | grep -E '^(-?[0-9.]+ ){4}[0-9.]+$' >"$work/faces" || true
  awk -v name="$photo $*" -v least_overlap="$least" -v width="$width" -v height="$height" '
    function least(a, b) { return a < b ? a : b }
    function most(a, b) { return a > b ? a : b }
    # The known boxes are fractions of the padded photo; the margins are in their first line.
    FNR == NR && /^#/ { top = $4; padded_height = height + $4 + $6; left = $8; padded_width = width + $8 + $10; next }
    FNR == NR {
      known++
      x1[known] = $1 * padded_width - left; y1[known] = $2 * padded_height - top
      x2[known] = $3 * padded_width - left; y2[known] = $4 * padded_height - top; score[known] = $5
      next
    }
    {
      found++
      best = 0
      for (i = 1; i <= known; i++) {
        w = most(0, least(x2[i], $3) - most(x1[i], $1)); h = most(0, least(y2[i], $4) - most(y1[i], $2))
        overlap = w * h / ((x2[i] - x1[i]) * (y2[i] - y1[i]) + ($3 - $1) * ($4 - $2) - w * h)
        if (overlap > best) { best = overlap; at = i }
      }
      difference = $5 - score[at]
      if (best <= least_overlap || difference > 0.02 || difference < -0.02 || met[at]++) {
        printf "%s: face %s: overlap %.3f with known face %d, score %.4f for %.4f\n", name, $0, best, at, $5, score[at]
        wrong = 1
      }
    }
    END {
      printf "%s: %d of %d faces\n", name, found, known
      exit wrong || found != known || known == 0
    }' "$models/$photo.faces.txt" "$work/faces"
}
for photo in photo_a photo_b; do
  check $photo 0.95
  check $photo 0.9 --q-list "$work/q.txt"
done
