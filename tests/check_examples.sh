#!/usr/bin/env bash
# Runs the examples that need no model: check_examples.sh LANDMARKS TRACK_FACES [EMULATOR].
# The landmark example prints its points; the tracking example says for
# every frame what it found, and draws.
set -euo pipefail
landmarks=$(realpath "$1")
track_faces=$(realpath "$2")
emulator=${3:-}
# On Windows the library lies in the folder above the examples.
cd "$(dirname "$landmarks")/.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$1, said:"
  cat "$work/said"
  exit 1
}

$emulator "$landmarks" >"$work/said" || fail "landmarks: code $?"
points=$(tr -d '\r' <"$work/said" | grep -Ec '^[0-9]+: -?[0-9]+\.[0-9]+ -?[0-9]+\.[0-9]+$') || true
[ "$points" = 98 ] || fail "landmarks: $points points for 98"
$emulator "$landmarks" "$work/missing.bmp" 0 0 9 9 >"$work/said" 2>&1 && fail "landmarks: a missing picture passes"

$emulator "$track_faces" "$work/tracks.bmp" >"$work/said" || fail "track_faces: code $?"
frames=$(tr -d '\r' <"$work/said" | grep -Ec '^ *[0-9]+: [0-9]+ found, [0-9]+ tracked:') || true
[ "$frames" -gt 1 ] || fail "track_faces: no frames"
tr -d '\r' <"$work/said" | grep -Eq '[1-9][0-9]* tracked:' || fail "track_faces: nothing tracked"
[ "$(head -c 2 "$work/tracks.bmp")" = BM ] || fail "track_faces: no picture"
