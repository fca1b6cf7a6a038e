#!/usr/bin/env python3
"""Trains a network on rendered people: train.py detector|landmarks --samples N [--resume].

The detector first sees pictures of half the width and height: a quarter of the work each, and
they count as a quarter of a sample. Pictures are composed as they are needed from a store of
rendered heads; picture i of a seed is always the same. A checkpoint is written every few minutes
and at SIGINT and SIGTERM; --resume goes on from it, and --samples may differ then: the learning
rate follows the share of samples seen. In the last part of a training (--frozen) batch normalisation
works with its running statistics, as it will in use: those of a few samples hide that rare inputs
blow up, and blur what the landmark network's last layers see.
"""
import argparse
import math
import os
import signal
import time

import numpy as np
import torch

import data
import losses
import models

NETWORKS = {"detector": models.Detector, "landmarks": models.Landmarks}
BATCH = {"detector": 12, "landmarks": 16}
RATE = {"detector": 2e-3, "landmarks": 5e-3}


def detector_batch(store, targets, seeds):
    pictures, labels, offsets = [], [], []
    for seed in seeds:
        picture, boxes = store.scene(seed, targets.width, targets.height)
        label, offset = targets(boxes)
        pictures.append(picture), labels.append(label), offsets.append(offset)
    return np.stack(pictures), (torch.from_numpy(np.stack(labels)),
                                torch.from_numpy(np.stack(offsets)))


def landmarks_batch(store, _, seeds):
    crops = [store.crop(seed)[:2] for seed in seeds]
    return np.stack([c[0] for c in crops]), (torch.from_numpy(np.stack([c[1] for c in crops])),)


def rate(seen, total, peak, warmup=1500):
    """Cosine schedule by samples seen, after a short rise."""
    return peak * min(1.0, (seen + 1) / warmup) * (
        0.01 + 0.99 * 0.5 * (1 + math.cos(math.pi * min(seen / total, 1.0))))


def share(parameter):
    """Of the learning rate: weights of many inputs start small, and steps of one size for all
    would drown them."""
    inputs = parameter[0].numel() if parameter.dim() > 1 else 1
    return min(1.0, math.sqrt(64 / inputs))


def has_bfloat16():
    """Whether the processor computes with it: elsewhere it is slower than single precision."""
    try:
        with open("/proc/cpuinfo") as file:
            return "avx512_bf16" in file.read()
    except OSError:
        return False


class Trainer:
    def __init__(self, options):
        self.options = options
        torch.manual_seed(options.seed)
        self.device = "cuda" if torch.cuda.is_available() else "cpu"
        self.model = NETWORKS[options.network]().to(self.device,
                                                    memory_format=torch.channels_last)
        self.half = not options.single and (self.device == "cuda" or has_bfloat16())
        self.mean = NETWORKS[options.network]()  # running mean of the weights: what is used
        self.mean.load_state_dict(self.model.state_dict())
        self.optimizer = torch.optim.AdamW([{"params": [p], "share": share(p)}
                                            for p in self.model.parameters()],
                                           lr=options.rate, weight_decay=1e-4)
        self.seen, self.steps, self.made = 0.0, 0, 0  # samples, steps, pictures
        self.stopped = False
        for number in (signal.SIGINT, signal.SIGTERM):
            signal.signal(number, self.stop)
        self.path = os.path.join(options.folder, options.network + ".pt")
        if options.resume and os.path.exists(self.path):
            saved = torch.load(self.path, map_location="cpu")
            self.model.load_state_dict(saved["model"])
            self.mean.load_state_dict(saved["mean"])
            self.optimizer.load_state_dict(saved["optimizer"])
            self.seen, self.steps, self.made = (saved[k] for k in ("seen", "steps", "made"))

    def stop(self, *_):
        self.stopped = True

    def save(self):
        state = {"network": self.options.network, "model": self.model.state_dict(),
                 "mean": self.mean.state_dict(), "optimizer": self.optimizer.state_dict(),
                 "seen": self.seen, "steps": self.steps,
                 "made": self.made, "seed": self.options.seed}
        torch.save(state, self.path + ".part")
        os.replace(self.path + ".part", self.path)

    def step(self, pictures, truth, weight):
        options = self.options
        for group in self.optimizer.param_groups:
            group["lr"] = rate(self.seen, options.samples, options.rate) * group["share"]
        self.model.train()
        if self.seen >= options.frozen * options.samples:
            for module in self.model.modules():
                if isinstance(module, torch.nn.BatchNorm2d):
                    module.eval()
        with torch.autocast(self.device, torch.bfloat16, enabled=self.half):
            found = self.model(models.normalize(pictures).to(self.device))
        found = [f.float() for f in found] if isinstance(found, tuple) else found.float()
        truth = [t.to(self.device) for t in truth]
        if options.network == "detector":
            parts = losses.detector_loss(*found, *truth)
        else:
            parts = (losses.landmark_loss(found, *truth),)
        self.optimizer.zero_grad()
        sum(parts).backward()
        torch.nn.utils.clip_grad_norm_(self.model.parameters(), 10.0)
        self.optimizer.step()
        self.seen += len(pictures) * weight
        self.steps += 1
        keep = min(0.998, self.steps / (self.steps + 20.0))
        with torch.no_grad():
            for mean, value in zip(self.mean.state_dict().values(),
                                   self.model.state_dict().values()):
                if mean.dtype.is_floating_point:
                    mean.lerp_(value.cpu(), 1.0 - keep)
                else:
                    mean.copy_(value)
        return [float(p.detach()) for p in parts]

    def run(self, store):
        options = self.options
        batch = detector_batch if options.network == "detector" else landmarks_batch
        whole = losses.Targets()
        quarter = losses.Targets(data.WIDTH // 2, data.HEIGHT // 2)
        saved = noted = time.time()
        sums, count, first = 0.0, 0, self.seen
        while self.seen < options.samples and not self.stopped:
            small = options.network == "detector" and self.seen < options.small * options.samples
            size = options.batch * (2 if small else 1)
            start = options.seed * 10**10 + self.made
            self.made += size
            made = batch(store, quarter if small else whole, range(start, start + size))
            sums = sums + np.array(self.step(*made, 0.25 if small else 1.0))
            count += 1
            now = time.time()
            if now - noted > 30 or self.seen >= options.samples:
                print(f"{options.network}: {self.seen:.0f} of {options.samples} samples, "
                      f"{(self.seen - first) / (now - noted):.1f} a second, "
                      f"loss {' + '.join(f'{v:.4f}' for v in sums / count)}", flush=True)
                noted, first, sums, count = now, self.seen, 0.0, 0
            if now - saved > 60 * options.minutes:
                self.save()
                saved = now
        self.save()
        if self.seen < options.samples:  # what follows in ./dev train is not for half a network
            raise SystemExit(f"{options.network}: stopped; --resume goes on")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("network", choices=NETWORKS)
    parser.add_argument("--samples", type=int, default=200000)
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--batch", type=int, help=str(BATCH))
    parser.add_argument("--small", type=float, default=0.43,
                        help="share of the detector's samples with quarter pictures")
    parser.add_argument("--frozen", type=float, default=0.5,
                        help="share of the samples before normalisation is frozen")
    parser.add_argument("--rate", type=float, help=f"highest learning rate {RATE}")
    parser.add_argument("--minutes", type=float, default=3, help="between checkpoints")
    parser.add_argument("--threads", type=int, default=1)
    parser.add_argument("--single", action="store_true", help="single precision, not bfloat16")
    parser.add_argument("--heads", type=int, default=5400, help="in the store")
    parser.add_argument("--folder", default=data.default_folder(), help="checkpoints")
    parser.add_argument("--store", help="rendered heads (default: FOLDER/store)")
    options = parser.parse_args()
    options.batch = options.batch or BATCH[options.network]
    options.rate = options.rate or RATE[options.network]
    torch.set_num_threads(options.threads)
    os.makedirs(options.folder, exist_ok=True)
    folder = options.store or os.path.join(options.folder, "store")
    Trainer(options).run(data.Store(folder, options.heads, options.seed))


if __name__ == "__main__":
    main()
