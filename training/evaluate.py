#!/usr/bin/env python3
"""Accuracy on rendered people that training has not seen: evaluate.py [--pictures 500].

Detector: average precision at an overlap of 0.5 and false faces a picture at recall 0.9.
Landmarks: mean distance of the visible points, in parts of the distance of the outer eye
corners, within 45 degrees of yaw. --photos DIR: how many faces of two photos (network inputs
photo_*.input.f32 and boxes photo_*.faces.txt) the detector finds; they are never trained on.
"""
import argparse
import glob
import json
import os

import numpy as np
import torch

import data
import losses
import models
from train import NETWORKS

PICTURE_SEED = 9 * 10**14  # far from those of training


def load(folder, name):
    saved = torch.load(os.path.join(folder, name + ".pt"), map_location="cpu")
    model = NETWORKS[name]()
    model.load_state_dict(saved["mean"])
    return models.fold(model), saved["seen"]


def suppress(boxes, scores, overlap=0.3):
    """Greedy suppression: the indices that stay, best first."""
    order, kept = np.argsort(-scores), []
    while len(order):
        kept.append(order[0])
        common = losses.overlaps(boxes[order[:1]], boxes[order[1:]])[0]
        order = order[1:][common <= overlap]
    return kept


class Faces:
    def __init__(self, model):
        self.model, self.priors = model, models.priors()

    def __call__(self, tensor, threshold):
        """Corner boxes as fractions of the picture, and scores."""
        with torch.no_grad():
            scores, offsets = self.model(tensor)
        scores = torch.softmax(scores[0], 1)[:, 1].numpy()
        chosen = scores > threshold
        priors, offsets = self.priors[chosen], offsets[0].numpy()[chosen]
        center = offsets[:, :2] * models.VARIANCES[0] * priors[:, 2:] + priors[:, :2]
        half = np.exp(offsets[:, 2:] * models.VARIANCES[1]) * priors[:, 2:] / 2
        boxes = np.concatenate([center - half, center + half], 1)
        kept = suppress(boxes, scores[chosen])
        return boxes[kept], scores[chosen][kept]


def match(boxes, scores, truth):
    """Each finding's score and 1 (a face), 0 (none) - without those on faces that may be found."""
    taken, out = set(), []
    for box, score in zip(boxes, scores):  # best first
        overlap = losses.overlaps(box[None], truth[:, :4])[0] if len(truth) else np.zeros(0)
        best = max((i for i in range(len(truth)) if i not in taken and overlap[i] >= 0.5),
                   key=lambda i: overlap[i], default=None)
        if best is None:
            out.append((score, 0))
        else:
            taken.add(best)
            if truth[best, 4] > 0.5:
                out.append((score, 1))
    return out


def precision(found, faces, pictures):
    """Average precision, and false faces a picture where 0.9 of the faces are found."""
    found = np.array(sorted(found, key=lambda f: -f[0])).reshape(-1, 2)
    right = np.cumsum(found[:, 1])
    wrong = np.cumsum(1 - found[:, 1])
    recall, share = right / faces, right / np.maximum(right + wrong, 1)
    share = np.maximum.accumulate(share[::-1])[::-1]
    area = float(np.sum(np.diff(recall, prepend=0) * share))
    at = np.searchsorted(recall, 0.9)
    false = float(wrong[at] / pictures) if at < len(wrong) else None
    return area, false, float(recall[-1]) if len(recall) else 0.0


def evaluate_detector(model, store, pictures):
    faces, found, total = Faces(model), [], 0
    for i in range(pictures):
        picture, truth = store.scene(PICTURE_SEED + i)
        truth[:, :4] /= (data.WIDTH, data.HEIGHT) * 2
        total += int(truth[:, 4].sum())
        found += match(*faces(models.normalize(picture[None]), 0.02), truth)
    area, false, recall = precision(found, total, pictures)
    return {"pictures": pictures, "faces": total, "average_precision": round(area, 4),
            "false_faces_at_recall_0.9": None if false is None else round(false, 4),
            "highest_recall": round(recall, 4)}


def evaluate_photos(model, folder, threshold=0.5):
    faces, result = Faces(model), {}
    for path in sorted(glob.glob(os.path.join(folder, "photo_*.input.f32"))):
        tensor = np.fromfile(path, np.float32).reshape(1, 3, data.HEIGHT, data.WIDTH)
        truth = np.loadtxt(path.replace(".input.f32", ".faces.txt"), ndmin=2)[:, :4]
        boxes, scores = faces(torch.from_numpy(tensor), threshold)
        overlap = losses.overlaps(truth, boxes) if len(boxes) else np.zeros((len(truth), 1))
        found = int((overlap.max(1) >= 0.4).sum())
        result[os.path.basename(path)[:7]] = {"faces": len(truth), "found": found,
                                              "others": int(len(boxes) - found)}
    return result


def evaluate_landmarks(model, store, pictures):
    errors, hidden, seed = [], [], PICTURE_SEED
    while len(errors) < pictures:
        crop, points, truth = store.crop(seed)
        seed += 1
        if abs(truth[3 * data.POINTS + 19]) > 45:
            continue
        with torch.no_grad():
            found = model(models.normalize(crop[None]))[0].numpy().reshape(-1, 2)
        eyes = np.linalg.norm(points[36, :2] - points[45, :2])
        distance = np.linalg.norm(found - points[:, :2], axis=1) / eyes
        seen = points[:, 2] > 0.5
        if seen.sum() >= 10:
            errors.append(distance[seen].mean())
            hidden.append(distance.mean())
    return {"crops": pictures, "mean_error": round(float(np.mean(errors)), 4),
            "median_error": round(float(np.median(errors)), 4),
            "mean_error_with_hidden_points": round(float(np.mean(hidden)), 4)}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", default=data.default_folder(), help="checkpoints")
    parser.add_argument("--store", help="rendered heads (default: FOLDER/store-test)")
    parser.add_argument("--heads", type=int, default=450)
    parser.add_argument("--pictures", type=int, default=500)
    parser.add_argument("--photos", help="folder with network inputs and boxes of photos")
    parser.add_argument("--only", choices=NETWORKS)
    options = parser.parse_args()
    torch.set_num_threads(1)
    store = data.Store(options.store or os.path.join(options.folder, "store-test"), options.heads,
                       seed=1001)
    result = {}
    for name, judge in (("detector", evaluate_detector), ("landmarks", evaluate_landmarks)):
        if options.only in (None, name) and os.path.exists(
                os.path.join(options.folder, name + ".pt")):
            model, seen = load(options.folder, name)
            result[name] = {"samples": seen, **judge(model, store, options.pictures)}
            if options.photos and name == "detector":
                result[name]["photos"] = evaluate_photos(model, options.photos)
    print(json.dumps(result, indent=1))


if __name__ == "__main__":
    main()
