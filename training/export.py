#!/usr/bin/env python3
"""Trained networks to examples/models: export.py [--folder DIR] [--models DIR].

Writes NAME.onnx (opset 11, plain convolutions) beside the checkpoint, converts it to NAME.zyn
with the preprocessing, the meanings and what a face session must know, and lets zyn-quant choose
its fraction bits on pictures of the store that training used.
"""
import argparse
import os
import subprocess
import sys
import tempfile

import numpy as np
import torch

import data
import models
from train import NETWORKS

SAMPLES = 150  # for the fraction bits
MARGIN = 2.0  # times the largest value seen: rare inputs reach further
SAMPLE_SEED = 4 * 10**14

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
            "face.role": "landmarks", "face.points": str(data.POINTS),
            "face.crop": str(models.CROP_SCALE),
            "face.left-eye": "36-41", "face.right-eye": "42-47", "face.nose": "30",
            "face.mouth": "48,54", "face.chin": "8"}},
}


def judging(what):
    """The landmark network with its judge."""
    more = ["scores", "offsets"]
    return {**what, "outputs": what["outputs"] + more,
            "meanings": {**what["meanings"], **{name: name for name in more}},
            "metadata": {**what["metadata"],
                         "face.variances": EACH["detector"]["metadata"]["face.variances"]}}


def load(folder, name):
    """The network as it is used, and the samples it has seen."""
    saved = torch.load(os.path.join(folder, name + ".pt"), map_location="cpu")
    model = {"judge": models.Judge, **NETWORKS}[name]()
    model.load_state_dict(saved["mean"])
    return models.fold(model), saved["seen"]


def calibrate(zyn, name, store, quantiser):
    """Puts fraction bits into a network file."""
    make = store.scene if name == "detector" else store.crop
    with tempfile.TemporaryDirectory() as folder:
        samples = [os.path.join(folder, f"{i}.npy") for i in range(SAMPLES)]
        for i, sample in enumerate(samples):
            np.save(sample, models.normalize(make(SAMPLE_SEED + i)[0][None]).contiguous().numpy())
        whole = os.path.join(folder, name + ".zyn")
        lines = subprocess.run([quantiser, "--model", zyn, "--out", whole,
                                "--margin", str(MARGIN), *samples],
                               check=True, capture_output=True, text=True).stdout.splitlines()
        print("  " + lines[-1])
        with open(whole, "rb") as source, open(zyn, "wb") as out:
            out.write(source.read())


def export(folder, name, target):
    what = EACH[name]
    model, seen = load(folder, name)
    if name == "landmarks" and os.path.exists(os.path.join(folder, "judge.pt")):
        model = models.JudgingLandmarks(model, load(folder, "judge")[0])
        what = judging(what)
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
    return zyn


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", default=data.default_folder(), help="checkpoints")
    parser.add_argument("--models", default=os.path.join(data.HERE, "..", "examples", "models"))
    parser.add_argument("--store", help="rendered heads (default: FOLDER/store)")
    parser.add_argument("--quantiser", help="zyn-quant (default: that of build/demo)",
                        default=os.path.join(data.HERE, "..", "build", "demo", "tools", "zyn-quant"))
    options = parser.parse_args()
    store = data.Store(options.store or os.path.join(options.folder, "store"))
    os.makedirs(options.models, exist_ok=True)
    for name in EACH:
        if os.path.exists(os.path.join(options.folder, name + ".pt")):
            zyn = export(options.folder, name, options.models)
            calibrate(zyn, name, store, options.quantiser)


if __name__ == "__main__":
    main()
