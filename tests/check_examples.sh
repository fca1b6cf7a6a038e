#!/usr/bin/env bash
# Runs the examples that need no model: check_examples.sh LANDMARKS TRACK_FACES FACE_APP [EMULATOR].
# The landmark example prints its points; the tracking example says for
# every frame what it found, and draws; face_app finds bright cells in three frames.
set -euo pipefail
landmarks=$(realpath "$1")
track_faces=$(realpath "$2")
face_app=$(realpath "$3")
emulator=${4:-}
tests=$(realpath "$(dirname "$0")")
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

# Sessions need networks: they are written with numpy, and the frames with them.
line 2 "$face_app" one two
run 1 'no input' "$face_app"
run 1 'no detector' "$face_app" missing.bmp
run 1 "there is no file $work/none.zyn" "$face_app" --model "$work/none.zyn" missing.bmp
if /usr/bin/python3 -c "import numpy" 2>/dev/null; then
  mkdir "$work/frames" "$work/results"
  PYTHONPATH=$tests/../python:$tests/python /usr/bin/python3 -B - "$work" <<'END_OF_WRITER'
import struct, sys
from networks import bright_cells
folder = sys.argv[1]
open(folder + "/cells.zyn", "wb").write(bright_cells())
for i in range(3):  # 64 x 48 pixels, a white cell
    rows = [b"\xff" * 48 + bytes(144) if y < 16 else bytes(192) for y in range(48)]
    head = struct.pack("<2sIHHIIiiHHIIiiII", b"BM", 54 + 9216, 0, 0, 54, 40, 64, 48, 1, 24, 0, 9216, 0, 0, 0, 0)
    open(folder + f"/frames/{i}.bmp", "wb").write(head + b"".join(reversed(rows)))
END_OF_WRITER
  run 1 "$work/missing.bmp is not there" "$face_app" --model "$work/cells.zyn" "$work/missing.bmp"
  run 1 'holds no BMP files' "$face_app" --model "$work/cells.zyn" "$work/results"
  run 1 'is not a folder' "$face_app" --model "$work/cells.zyn" --out "$work/frames/0.bmp" "$work/frames/0.bmp"
  run 1 'this is no network file' "$face_app" --model "$work/frames/0.bmp" "$work/frames/0.bmp"
  run 0 'memory in use at the end: 0 bytes' "$face_app" --model "$work/cells.zyn" --frames --out "$work/results" "$work/frames"
  [ "$(count '^3 frames, 1.00 faces in each')" = 1 ] || fail "face_app: not one face in each frame"
  [ "$(grep -c '"id":0,"state":"detected"' "$work/results/faces.jsonl")" = 3 ] || fail "face_app: no lines"
  [ "$(ls "$work/results" | grep -c '^frame-00000[0-2].bmp$')" = 3 ] || fail "face_app: no frames"
  ls "$work/results"/contact-sheet.* >/dev/null || fail "face_app: no contact sheet"
else
  echo "no numpy: face_app is run without networks only"
fi
