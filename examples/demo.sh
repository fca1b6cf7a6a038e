#!/usr/bin/env bash
# Renders a clip of four moving heads, follows the faces in it with the networks of
# examples/models, and prints how well that went beside the truth. The results stay in demo/.
set -euo pipefail
[ "${1:---help}" != --help ] || { echo "usage: demo.sh BUILD_DIR [FOLDER]"; sed -n '2,3s/^# //p' "$0"; exit 0; }
here=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
out=${2:-$here/demo}
mkdir -p "$out/frames"
echo "rendering 150 frames of 640 x 480 pixels ..."
"$build/training/render/render_clip" "$out/frames" 7 150 4
"$build/examples/face_app" --model "$here/examples/models/detector.zyn" \
  --landmarks "$here/examples/models/landmarks.zyn" --focal 640 --out "$out" "$out/frames"
cp "$out/frames/truth.json" "$out/truth.json"
echo
echo "beside the truth of the clip:"
/usr/bin/python3 "$here/training/clips.py" "$out"
echo
echo "look at $out/contact-sheet.png and $out/annotated.mp4"
