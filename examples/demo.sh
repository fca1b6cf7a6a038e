#!/usr/bin/env bash
# Runs the face detector of a build folder and says where the drawn picture is. With
# ZYN_MODEL_DIR it is the trained detector on a photo, else a generated stand-in.
set -euo pipefail
[ "${1:---help}" != --help ] || { echo "usage: demo.sh BUILD_DIR"; sed -n '2,3s/^# //p' "$0"; exit 0; }
build=$1
picture=$build/faces.bmp
echo "faces as x1 y1 x2 y2 score:"
"$build/examples/detect_faces" --draw "$picture"
echo "look at $picture"
