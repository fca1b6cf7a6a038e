#!/usr/bin/env python3
"""Trains the landmark network's second output: judge.py [--pictures N] [--epochs N].

It tells whether a crop's middle is a face, and the face's box. It learns from what the trained
detector finds in pictures, right or wrong, and from what the trained landmark network makes of
the crops: that network stays as it is. The features of N pictures are kept in features.npz beside
the checkpoints. Needs the library, for the detector, in examples/models or where --models says.
"""
import argparse
import math
import os
import sys

import numpy as np
import torch

import data
import export
import losses
import measures
import models

sys.path.insert(0, os.path.join(data.HERE, "..", "python"))
import zyncore  # noqa: E402 (from this tree)

PICTURE_SEED = 6 * 10**14
LEAST_SCORE = 0.03  # of the findings that are looked at
BATCH, RATE = 256, 2e-3


def axis(pixels, begin, extent):
    """Which pixels along an axis make up each element of a crop (data.CROP x pixels): the mean over
    its area or, enlarged, bilinear; none where its centre is outside. As sessions sample."""
    step = extent / data.CROP
    center = begin + (np.arange(data.CROP) + 0.5) * step
    low = np.maximum(center - max(step, 1) / 2, 0)
    high = np.minimum(center + max(step, 1) / 2, pixels)
    at = np.arange(pixels)
    part = np.minimum(high[:, None], at + 1) - np.maximum(low[:, None], at)
    weights = part.clip(0) / np.maximum(high - low, 1e-9)[:, None]
    weights[(center < 0) | (center >= pixels)] = 0
    return weights.astype(np.float32)


def crop(picture, square):
    x, y, side = square
    rows = np.tensordot(axis(picture.shape[0], y, side), picture.astype(np.float32), 1)
    return np.einsum("xw,ywc->yxc", axis(picture.shape[1], x, side), rows, optimize=True)


def square_around(box):
    """Left, top and side of the landmark network's crop."""
    side = max(models.CROP_SCALE * max(box[2] - box[0], box[3] - box[1]), 1)
    return (box[0] + box[2] - side) / 2, (box[1] + box[3] - side) / 2, side


def offsets_from(square, box):
    """Of a box from the square for which the crop was made, as the network tells them."""
    x, y, side = square
    prior = side / models.CROP_SCALE
    return [((box[0] + box[2] - side) / 2 - x) / prior / models.VARIANCES[0],
            ((box[1] + box[3] - side) / 2 - y) / prior / models.VARIANCES[0],
            math.log((box[2] - box[0]) / prior) / models.VARIANCES[1],
            math.log((box[3] - box[1]) / prior) / models.VARIANCES[1]]


def look(store, detector, trunk, pictures):
    """Of every finding in so many pictures: the trunk's features (half precision), overlap with
    the nearest face, 1 if that one must be found, and its offsets."""
    session = zyncore.Faces(detector, keep_threshold=LEAST_SCORE, score_threshold=LEAST_SCORE,
                            max_faces=data.MOST_FACES)
    features, facts, crops = [], [], []
    for i in range(pictures):
        picture, truth = store.scene(PICTURE_SEED + i)
        session.reset()
        for face in session(picture, i, format=zyncore.Format.RGB):
            square = square_around(face.box)
            crops.append(crop(picture, square))
            overlap = measures.overlaps(np.array(face.box)[None], truth[:, :4])[0]
            best = overlap.argmax() if len(truth) else -1
            facts.append([overlap[best], truth[best, 4], *offsets_from(square, truth[best])]
                         if best >= 0 else [0] * 6)
        if len(crops) >= 32 or i + 1 == pictures:
            with torch.no_grad():
                features += [f for f in trunk(models.normalize(np.array(crops))).numpy().astype(
                    np.float16)] if crops else []
            crops = []
        if i % 1000 == 999:
            print(f"judge: {len(facts)} findings in {i + 1} of {pictures} pictures", flush=True)
    return np.array(features), np.array(facts, np.float32)


def train(features, facts, epochs):
    model = models.Judge().to(memory_format=torch.channels_last)
    optimizer = torch.optim.AdamW(model.parameters(), lr=RATE, weight_decay=1e-3)
    facts = torch.from_numpy(facts)
    epoch = max(len(facts) // BATCH, 1)
    steps = epochs * epoch
    for step in range(steps):
        if step % epoch == 0:
            order = torch.randperm(len(facts))
        chosen = order[:BATCH]
        order = order[BATCH:]
        for group in optimizer.param_groups:
            group["lr"] = RATE * (1 + math.cos(math.pi * step / steps)) / 2
        scores, offsets = model(torch.from_numpy(features[chosen.numpy()]).float())
        parts = losses.judge_loss(scores, offsets, *facts[chosen].split([1, 1, 4], 1))
        optimizer.zero_grad()
        sum(parts).backward()
        optimizer.step()
        if step % 500 == 499 or step + 1 == steps:
            print(f"judge: step {step + 1} of {steps}, "
                  f"loss {' + '.join(f'{float(p):.4f}' for p in parts)}", flush=True)
    return model


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--pictures", type=int, default=28000)
    parser.add_argument("--epochs", type=int, default=12)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--folder", default=data.default_folder(), help="checkpoints")
    parser.add_argument("--models", default=os.path.join(data.HERE, "..", "examples", "models"))
    parser.add_argument("--store", help="rendered heads (default: FOLDER/store)")
    options = parser.parse_args()
    torch.set_num_threads(options.threads)
    torch.manual_seed(options.seed)
    kept = os.path.join(options.folder, "features.npz")
    if os.path.exists(kept):
        with np.load(kept) as file:
            features, facts, pictures = file["features"], file["facts"], int(file["pictures"])
    if not os.path.exists(kept) or pictures != options.pictures:
        trunk = export.load(options.folder, "landmarks")[0].trunk()
        features, facts = look(data.Store(options.store or os.path.join(options.folder, "store")),
                               os.path.join(options.models, "detector.zyn"), trunk,
                               options.pictures)
        np.savez(kept, features=features, facts=facts, pictures=options.pictures)
    model = train(features, facts, options.epochs)
    torch.save({"network": "judge", "mean": model.state_dict(), "seen": len(facts)},
               os.path.join(options.folder, "judge.pt"))


if __name__ == "__main__":
    main()
