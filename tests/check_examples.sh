#!/usr/bin/env bash
# Runs the examples that need no model: check_examples.sh LANDMARKS TRACK_FACES [EMULATOR].
# The landmark example prints its points; the tracking example says for
# every frame what it found, and draws.
set -euo pipefail
landmarks=$(realpath "$1")
track_faces=$(realpath "$2")
emulator=${3:-}
source "$(dirname "$0")/support/program.sh"
# On Windows the library lies in the folder above the examples.
cd "$(dirname "$landmarks")/.."

run 0 '' "$landmarks"
[ "$(count '^[0-9]+: -?[0-9]+\.[0-9]+ -?[0-9]+\.[0-9]+$')" = 98 ] || fail "landmarks: not 98 points"
run 1 'no image' "$landmarks" "$work/missing.bmp" -1 -1 9 9

line 2 "$landmarks" face.bmp 1 2 3 x
line 2 "$track_faces" one.bmp two.bmp
run 1 'cannot be written' "$track_faces" "$work/no/tracks.bmp"
[ ! -s "$work/out" ] || fail "track_faces: works before it looks"

run 0 '[1-9][0-9]* tracked:' "$track_faces" "$work/tracks.bmp"
[ "$(count '^ *[0-9]+: [0-9]+ found, [0-9]+ tracked:')" -gt 1 ] || fail "track_faces: no frames"
[ "$(head -c 2 "$work/tracks.bmp")" = BM ] || fail "track_faces: no picture"
