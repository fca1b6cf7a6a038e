#!/usr/bin/env python3
"""How well faces were followed through rendered clips: clips.py FOLDER...

Each folder holds truth.json of render_clip and faces.jsonl of face_app. Prints the figures of all
clips together (numpy alone):
  found      faces of the truth with a box at an overlap of 0.5 or more
  false      boxes without a face, a frame
  MOTA       1 - (missed + false + switched ids) / faces (Bernardin and Stiefelhagen, 2008)
  landmarks  mean distance of the visible points in parts of the distance of the outer eye corners,
             within 45 degrees of yaw
  pose       angle between the rotations, median within 45 degrees of yaw
Faces of which less than 30 % is seen, or smaller than 20 pixels, may be found but need not.
"""
from __future__ import annotations

import json
import sys
from pathlib import Path

import numpy as np

OVERLAP, LEAST_SEEN, LEAST_SIZE, MOST_YAW = 0.5, 0.3, 20, 45


def overlap(a: np.ndarray, b: np.ndarray) -> float:
    width = min(a[2], b[2]) - max(a[0], b[0])
    height = min(a[3], b[3]) - max(a[1], b[1])
    common = max(width, 0.0) * max(height, 0.0)
    return common / ((a[2] - a[0]) * (a[3] - a[1]) + (b[2] - b[0]) * (b[3] - b[1]) - common)


class Clip:
    """Sums over frames."""

    def __init__(self) -> None:
        self.frames = self.faces = self.found = self.false = self.switches = 0
        self.landmarks: list[float] = []
        self.angles: list[float] = []

    def add(self, folder: Path) -> None:
        truth = json.loads((folder / "truth.json").read_text())["frames"]
        lines = [json.loads(line) for line in (folder / "faces.jsonl").read_text().splitlines()]
        if len(lines) != len(truth):
            sys.exit(f"{folder}: {len(truth)} frames of truth, {len(lines)} of faces")
        ids: dict[int, int] = {}  # by face of the truth: the latest id it was found under
        for wanted, line in zip(truth, lines):
            self.frame(wanted["faces"], [f for f in line["faces"] if f["state"] != "predicted"],
                       ids)

    def frame(self, wanted: list[dict], found: list[dict], ids: dict[int, int]) -> None:
        self.frames += 1
        pairs = sorted(((overlap(w["box"], f["box"]), i, j) for i, w in enumerate(wanted)
                        for j, f in enumerate(found)), reverse=True)
        of_face: dict[int, int] = {}
        for share, i, j in pairs:
            if share >= OVERLAP and i not in of_face and j not in of_face.values():
                of_face[i] = j
        self.false += len(found) - len(of_face)
        for i, face in enumerate(wanted):
            box = face["box"]
            optional = face["visible"] < LEAST_SEEN or box[3] - box[1] < LEAST_SIZE
            self.faces += not optional
            if i not in of_face:
                continue
            self.found += not optional
            match = found[of_face[i]]
            self.switches += ids.get(face["id"], match["id"]) != match["id"]
            ids[face["id"]] = match["id"]
            if not optional:
                self.compare(face, match)

    def compare(self, face: dict, found: dict) -> None:
        rotation = np.array(face["rotation"]).reshape(3, 3)
        if abs(np.degrees(np.arctan2(rotation[0, 2], rotation[2, 2]))) > MOST_YAW:
            return
        points = np.array(face["landmarks"]).reshape(-1, 2)
        seen = np.array(face["landmarks_visible"]) > 0
        if len(found["landmarks"]) == points.size and seen.sum() >= 10:
            distance = np.linalg.norm(np.array(found["landmarks"]).reshape(-1, 2) - points, axis=1)
            eyes = np.linalg.norm(points[36] - points[45])
            self.landmarks.append(float(distance[seen].mean() / eyes))
        if "rotation" in found:
            between = rotation.T @ np.array(found["rotation"]).reshape(3, 3)
            cosine = np.clip((np.trace(between) - 1) / 2, -1, 1)
            self.angles.append(float(np.degrees(np.arccos(cosine))))

    def lines(self) -> list[str]:
        missed = self.faces - self.found
        mota = 1 - (missed + self.false + self.switches) / max(self.faces, 1)
        lines = [f"found       {self.found} of {self.faces} faces in {self.frames} frames",
                 f"false       {self.false / max(self.frames, 1):.3f} a frame",
                 f"MOTA        {mota:.3f}, {self.switches} switched ids"]
        if self.landmarks:
            lines.append(f"landmarks   mean {100 * np.mean(self.landmarks):.1f} % of the eye distance")
        if self.angles:
            lines.append(f"pose        median {np.median(self.angles):.1f} degrees")
        return lines


def main() -> None:
    if len(sys.argv) < 2 or "--help" in sys.argv:
        sys.exit(__doc__.strip())
    clip = Clip()
    for folder in sys.argv[1:]:
        clip.add(Path(folder))
    print("\n".join(clip.lines()))


if __name__ == "__main__":
    main()
