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
  smoothing  by how much it lowers the trembling of landmarks at rest (heads rest for the first
             second), and how many frames it trails behind afterwards
Faces of which less than 30 % is seen, or smaller than 20 pixels, may be found but need not.
"""
from __future__ import annotations

import json
import sys
from pathlib import Path

import numpy as np

import measures

LEAST_SEEN, LEAST_SIZE, MOST_YAW = 0.3, 20, 45
REST = 1.0  # seconds
BEGIN = 0.4  # in which smoothing settles


class Clip:
    """Sums over frames."""

    def __init__(self) -> None:
        self.clips = self.frames = self.faces = self.found = self.false = self.switches = 0
        self.landmarks: list[float] = []
        self.angles: list[float] = []
        self.rest: list[tuple[float, float]] = []  # jitter of found and smoothed points
        self.lags: list[float] = []

    def add(self, truth: list[dict], frames: list[list[dict]]) -> None:
        """A clip: the truth's frames, and the faces of each."""
        self.clips += 1
        ids: dict[int, int] = {}  # by face of the truth: the latest id it was found under
        runs: dict[tuple[int, int], list] = {}  # by face and id: its frames
        for wanted, faces in zip(truth, frames):
            self.frame(wanted, [f for f in faces if f["state"] != "predicted"], ids, runs)
        for run in runs.values():
            gaps = np.flatnonzero(np.diff([frame[0] for frame in run]) > 1) + 1
            for part in np.split(np.arange(len(run)), gaps):
                self.smoothing(*(np.array(v) for v in list(zip(*(run[i] for i in part)))[1:]))

    def frame(self, wanted: dict, found: list[dict], ids: dict[int, int],
              runs: dict[tuple[int, int], list]) -> None:
        faces = wanted["faces"]
        self.frames += 1
        table = measures.overlaps(*(np.array([f["box"] for f in some], float).reshape(-1, 4)
                                    for some in (faces, found)))
        optional = [face["visible"] < LEAST_SEEN or face["box"][3] - face["box"][1] < LEAST_SIZE
                    for face in faces]
        of_face: dict[int, int] = {}
        # A box on a face and on another one hidden behind it is that of the face that is seen.
        for at in np.lexsort((-table.ravel(), np.repeat(optional, len(found)))):
            i, j = divmod(int(at), len(found))
            if (table[i, j] >= measures.LEAST_OVERLAP and i not in of_face
                    and j not in of_face.values()):
                of_face[i] = j
        self.false += len(found) - len(of_face)
        for i, face in enumerate(faces):
            self.faces += not optional[i]
            if i not in of_face:
                continue
            self.found += not optional[i]
            match = found[of_face[i]]
            self.switches += ids.get(face["id"], match["id"]) != match["id"]
            ids[face["id"]] = match["id"]
            if optional[i] or not len(match["landmarks"]):
                continue
            points = [np.array(p, float).reshape(-1, 2)
                      for p in (match["landmarks"], match["smoothed"], face["landmarks"])]
            runs.setdefault((face["id"], match["id"]), []).append(
                (wanted["index"], wanted["time"], *points))
            self.compare(face, match, points[0], points[2])

    def compare(self, face: dict, found: dict, landmarks: np.ndarray, points: np.ndarray) -> None:
        rotation = np.array(face["rotation"]).reshape(3, 3)
        if abs(np.degrees(np.arctan2(rotation[0, 2], rotation[2, 2]))) > MOST_YAW:
            return
        seen = np.array(face["landmarks_visible"]) > 0
        if seen.sum() >= 10:
            self.landmarks.append(measures.landmark_error(landmarks, points, seen))
        if "rotation" in found:
            turned = np.array(found["rotation"]).reshape(3, 3)
            self.angles.append(measures.angle_between(rotation, turned))

    def smoothing(self, times: np.ndarray, found: np.ndarray, smoothed: np.ndarray,
                  truth: np.ndarray) -> None:
        still = (times > BEGIN) & (times < REST)
        if still.sum() > 10:
            self.rest.append((measures.jitter(found[still]), measures.jitter(smoothed[still])))
        moving = times >= REST
        if moving.sum() > 10:
            self.lags.append(measures.lag(found[moving], smoothed[moving], truth[moving]))

    def mota(self) -> float:
        missed = self.faces - self.found
        return 1 - (missed + self.false + self.switches) / max(self.faces, 1)

    def calmed(self) -> float:
        """The part of the jitter at rest that smoothing takes away."""
        return 1 - float(np.divide(*np.mean(self.rest, axis=0)[::-1])) if self.rest else np.nan

    def lines(self) -> list[str]:
        lines = [f"found       {self.found} of {self.faces} faces in {self.frames} frames",
                 f"false       {self.false / max(self.frames, 1):.3f} a frame",
                 f"MOTA        {self.mota():.3f}, {self.switches} switched ids"]
        if self.landmarks:
            lines.append(f"landmarks   mean {100 * np.mean(self.landmarks):.1f} % of the eye distance")
        if self.angles:
            lines.append(f"pose        median {np.median(self.angles):.1f} degrees")
        if self.rest and self.lags:
            lines.append(f"smoothing   {100 * self.calmed():.0f} % less jitter at rest, "
                         f"{np.mean(self.lags):.2f} frames behind")
        return lines


def read_truth(folder: Path) -> list[dict]:
    return json.loads((folder / "truth.json").read_text())["frames"]


def main() -> None:
    if len(sys.argv) < 2 or "--help" in sys.argv:
        sys.exit(__doc__.strip())
    clip = Clip()
    for folder in map(Path, sys.argv[1:]):
        truth = read_truth(folder)
        lines = (folder / "faces.jsonl").read_text().splitlines()
        if len(lines) != len(truth):
            sys.exit(f"{folder}: {len(truth)} frames of truth, {len(lines)} of faces")
        clip.add(truth, [json.loads(line)["faces"] for line in lines])
    print("\n".join(clip.lines()))


if __name__ == "__main__":
    main()
