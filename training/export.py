#!/usr/bin/env python3
"""Trained networks to examples/models: export.py [--folder DIR] [--models DIR].

Writes NAME.onnx (opset 11, plain convolutions) beside the checkpoint and converts it to
NAME.zyn with the preprocessing, the meanings and what a face session must know.
"""
import argparse
import os
import subprocess
import sys

import torch

import data
import models
from train import NETWORKS

EACH = {
    "detector": {
        "shape": (1, 3, data.HEIGHT, data.WIDTH), "outputs": ["scores", "offsets"],
        "resize": "border", "meanings": {"scores": "scores", "offsets": "offsets"},
        "metadata": {
            "face.role": "detector",
            "face.strides": ",".join(map(str, models.STRIDES)),
            "face.min-sizes": ";".join(",".join(map(str, s)) for s in models.MIN_SIZES),
            "face.variances": ",".join(map(str, models.VARIANCES))}},
    "landmarks": {
        "shape": (1, 3, data.CROP, data.CROP), "outputs": ["landmarks"],
        "resize": "stretch", "meanings": {"landmarks": "landmarks"},
        "metadata": {
            "face.role": "landmarks", "face.points": str(data.POINTS), "face.crop": "1.25",
            "face.left-eye": "36-41", "face.right-eye": "42-47", "face.nose": "30",
            "face.mouth": "48,54", "face.chin": "8"}},
}


def load(folder, name):
    """The network as it is used, and the samples it has seen."""
    saved = torch.load(os.path.join(folder, name + ".pt"), map_location="cpu")
    model = NETWORKS[name]()
    model.load_state_dict(saved["mean"])
    return models.fold(model), saved["seen"]


def export(folder, name, target):
    what = EACH[name]
    model, seen = load(folder, name)
    onnx = os.path.join(folder, name + ".onnx")
    torch.onnx.export(model, torch.zeros(what["shape"]), onnx, opset_version=11,
                      input_names=["picture"], output_names=what["outputs"])
    zyn = os.path.join(target, name + ".zyn")
    command = [sys.executable, "-m", "zyncore.convert", onnx, "-o", zyn,
               "--mean", str(models.MEAN), "--scale", str(models.SCALE),
               "--resize", what["resize"]]
    for output, meaning in what["meanings"].items():
        command += ["--meaning", f"{output}={meaning}"]
    lines = {**what["metadata"], "training.samples": str(int(seen)),
             "licence": "that of the project"}
    for key, value in lines.items():
        command += ["--metadata", f"{key}={value}"]
    package = os.path.join(data.HERE, "..", "python")
    paths = [package] + [p for p in [os.environ.get("PYTHONPATH")] if p]
    subprocess.run(command, check=True, env={**os.environ, "PYTHONPATH": os.pathsep.join(paths)})


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", default=data.default_folder(), help="checkpoints")
    parser.add_argument("--models", default=os.path.join(data.HERE, "..", "examples", "models"))
    options = parser.parse_args()
    os.makedirs(options.models, exist_ok=True)
    for name in EACH:
        if os.path.exists(os.path.join(options.folder, name + ".pt")):
            export(options.folder, name, options.models)


if __name__ == "__main__":
    main()
