#!/usr/bin/env python3
"""The accuracy of the face networks on rendered people that training has not seen.

Runs them through the library, in single precision and (in brackets) in fixed point, and prints a
table. Needs numpy, the library and the renderer; ZYN_MODEL_DIR names a folder with photo_*.bmp and
photo_*.faces.txt, the faces of which are counted too. What it renders stays in the folder.
"""
from __future__ import annotations

import argparse
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np

import clips
import data
import measures

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "python"))
import zyncore  # noqa: E402 (from this tree)

PICTURE_SEED = 9 * 10**14  # far from those of training
STORE_SEED = 1001  # other people
CLIP_SEED = 201
CLIP_FRAMES, CLIP_HEADS = 100, 4
LEAST_SCORE = 0.02  # of the findings that the average precision counts
MOST_YAW = 45
PHOTO_OVERLAP = 0.4  # another detector's boxes are the truth there
EVERY = {"keep_threshold": LEAST_SCORE, "score_threshold": LEAST_SCORE, "max_faces": 200}


def detection(networks: list[Path], store: data.Store, pictures: int, fixed: bool
              ) -> dict[str, float]:
    """Of single pictures, by the detector and, where there are two networks, its second look."""
    session = zyncore.Faces(*networks, fixed_point=fixed, **EVERY)
    findings, total = [], 0
    for i in range(pictures):
        picture, truth = store.scene(PICTURE_SEED + i)
        session.reset()
        faces = session(picture, i, format=zyncore.Format.RGB)
        total += int(truth[:, 4].sum())
        findings += measures.judge(np.array([f.box for f in faces]),
                                   np.array([f.score for f in faces]), truth)
    return dict(zip(("precision", "false", "recall"),
                    measures.precision(findings, total, pictures)), faces=total)


def landmarks(network: Path, store: data.Store, crops: int, fixed: bool) -> dict[str, float]:
    net = zyncore.Net(network, fixed_point=fixed)
    port = next(iter(net.inputs.values()))
    errors: list[float] = []
    seed = PICTURE_SEED
    while len(errors) < crops:
        crop, points, truth = store.crop(seed)
        seed += 1
        seen = points[:, 2] > 0.5
        if abs(truth[data.YAW]) > MOST_YAW or seen.sum() < 10:
            continue
        planes = (crop.transpose(2, 0, 1) - np.float32(port.mean[0])) * np.float32(port.scale[0])
        found = next(iter(net.run(planes).values())).reshape(-1, 2)
        errors.append(measures.landmark_error(found, points[:, :2], seen))
    return {"mean": 100 * float(np.mean(errors)), "median": 100 * float(np.median(errors))}


def as_dict(face: zyncore.Face) -> dict:
    """As face_app writes it."""
    line = {"id": face.id, "state": face.state.name.lower(), "box": face.box,
            "landmarks": face.landmarks, "smoothed": face.smoothed}
    return {**line, "rotation": face.pose.rotation} if face.pose else line


def follow(networks: list[Path], folders: list[Path], fixed: bool) -> clips.Clip:
    clip = clips.Clip()
    for folder in folders:
        session = zyncore.Faces(*networks, fixed_point=fixed)
        truth = clips.read_truth(folder)
        clip.add(truth, [[as_dict(f) for f in session(
            zyncore.read_bmp(folder / f"frame_{frame['index']:04d}.bmp"), frame["time"])]
            for frame in truth])
    return clip


def photos(networks: list[Path], folder: Path, fixed: bool) -> tuple[int, int, int]:
    """Known faces, those found, other findings; with the settings of a session."""
    session = zyncore.Faces(*networks, fixed_point=fixed)
    known = found = others = 0
    for path in sorted(folder.glob("photo_*.faces.txt")):
        picture = zyncore.read_bmp(path.with_name(path.name.replace(".faces.txt", ".bmp")))
        margins = path.read_text().splitlines()[0].split(";")[0]  # of the padded photo
        top, bottom, left, right = map(float, re.findall(r"\d+", margins))
        truth = np.loadtxt(path, ndmin=2)[:, :4]
        truth *= [picture.width + left + right, picture.height + top + bottom] * 2
        truth -= [left, top] * 2
        boxes = np.array([f.box for f in session(picture, 0)]).reshape(-1, 4)
        overlap = measures.overlaps(truth, boxes) if len(boxes) else np.zeros((len(truth), 1))
        met = int((overlap.max(1) >= PHOTO_OVERLAP).sum())
        known, found, others = known + len(truth), found + met, others + len(boxes) - met
        session.reset()
    return known, found, others


def rendered_clips(folder: Path, count: int) -> list[Path]:
    program = os.environ.get("ZYN_RENDER_CLIP",
                             HERE.parent / "build/demo/training/render/render_clip")
    made = []
    for seed in range(CLIP_SEED, CLIP_SEED + count):
        made.append(folder / f"clip-{seed}-{CLIP_FRAMES}")
        if not (made[-1] / "truth.json").exists():
            print(f"rendering clip {seed}", file=sys.stderr, flush=True)
            part = made[-1].with_suffix(".part")
            part.mkdir(parents=True, exist_ok=True)
            subprocess.run([program, part, str(seed), str(CLIP_FRAMES), str(CLIP_HEADS)], check=True)
            part.rename(made[-1])
    return made


def figures(options: argparse.Namespace, store: data.Store, folders: list[Path], fixed: bool
            ) -> list[tuple[str, str]]:
    """What is measured, and the value."""
    networks = [options.models / "detector.zyn", options.models / "landmarks.zyn"]
    d = detection(networks, store, options.pictures, fixed)
    alone = detection(networks[:1], store, options.pictures, fixed)
    l = landmarks(networks[1], store, options.pictures, fixed)
    c = follow(networks, folders, fixed)
    lines = [
        (f"faces in {options.pictures} pictures, {d['faces']} of them: average precision at "
         f"overlap {measures.LEAST_OVERLAP}", f"{d['precision']:.3f}"),
        ("false faces a picture at recall 0.9", f"{d['false']:.3f}"),
        ("highest recall", f"{d['recall']:.3f}"),
        ("by the detector alone, without second look: average precision",
         f"{alone['precision']:.3f}"),
        ("detector alone: false faces a picture at recall 0.9", f"{alone['false']:.3f}"),
        (f"landmarks, {options.pictures} crops within {MOST_YAW} degrees of yaw: mean error of the "
         "visible points, of the distance of the outer eye corners", f"{l['mean']:.1f} %"),
        ("landmarks: median of the crops", f"{l['median']:.1f} %"),
        (f"{c.clips} clips of {CLIP_HEADS} people, {c.frames} frames with {c.faces} faces: MOTA",
         f"{c.mota():.3f}"),
        ("clips: faces found", f"{100 * c.found / c.faces:.1f} %"),
        ("clips: false faces a frame", f"{c.false / c.frames:.3f}"),
        ("clips: switched ids a clip", f"{c.switches / c.clips:.1f}"),
        ("clips: landmarks", f"{100 * np.mean(c.landmarks):.1f} %"),
        ("clips: median angle of the poses", f"{np.median(c.angles):.1f} degrees"),
        ("clips: jitter at rest lowered by smoothing", f"{100 * c.calmed():.0f} %"),
        ("clips: lag of the smoothed landmarks", f"{np.mean(c.lags):.2f} frames")]
    if "ZYN_MODEL_DIR" in os.environ:
        known, found, others = photos(networks, Path(os.environ["ZYN_MODEL_DIR"]), fixed)
        lines.append((f"two photographs with {known} faces: found, others", f"{found}, {others}"))
    return lines


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", type=Path, default=data.default_folder())
    parser.add_argument("--models", type=Path, default=HERE.parent / "examples/models")
    parser.add_argument("--heads", type=int, default=450)
    parser.add_argument("--pictures", type=int, default=500)
    parser.add_argument("--clips", type=int, default=10)
    parser.add_argument("--float", action="store_true", help="without fixed point")
    options = parser.parse_args()
    store = data.Store(options.folder / "store-test", options.heads, STORE_SEED)
    folders = rendered_clips(options.folder, options.clips)
    lines = figures(options, store, folders, False)
    fixed = [] if options.float else figures(options, store, folders, True)
    print("| | |\n|---|---|")
    for i, (what, value) in enumerate(lines):
        print(f"| {what[0].upper() + what[1:]} | {value}{f' ({fixed[i][1]})' if fixed else ''} |")
    if "ZYN_MODEL_DIR" not in os.environ:
        print("\nZYN_MODEL_DIR is not set: faces in photographs are not counted")


if __name__ == "__main__":
    main()
