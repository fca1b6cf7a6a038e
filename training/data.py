"""Rendered heads and the pictures composed of them.

A store is a folder with heads.npy (uint8, N x SIDE x SIDE x 4, colours multiplied by alpha) and
truth.npy (float32, N x TRUTH); that for evaluation has people of other seeds than that for
training. Everything follows from the seeds.
"""
import ctypes
import os

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
SIDE = 224  # of a stored head, in pixels
WIDTH, HEIGHT = 320, 240  # of the detector's pictures
CROP = 112  # side of the landmark network's pictures
POINTS = 68
YAW = 3 * POINTS + 19  # of a head, in its truth
MOST_FACES = 16


def default_folder():
    """Where stores and checkpoints go: ZYN_TRAINING_DIR, or build/training of this tree."""
    return os.environ.get("ZYN_TRAINING_DIR", os.path.join(HERE, "..", "build", "training"))


def _pointer(array):
    return array.ctypes.data_as(ctypes.c_void_p)


class Renderer:
    """The renderer's library (see render/capi.cpp)."""

    def __init__(self, path=None):
        path = path or os.environ.get("ZYN_RENDER_LIBRARY") or os.path.join(
            HERE, "..", "build", "demo", "training", "render", "libzyn_render.so")
        self.library = ctypes.CDLL(path)
        self.truth_floats = self.library.render_truth_floats()

    def head(self, seed, index, side=SIDE):
        """A head's picture and truth."""
        rgba = np.zeros((side, side, 4), np.uint8)
        truth = np.zeros(self.truth_floats, np.float32)
        self.library.render_store_head(ctypes.c_uint64(seed), ctypes.c_uint32(index), side,
                                       _pointer(rgba), _pointer(truth))
        return rgba, truth


class Store:
    """Heads rendered ahead; with a count the missing ones are rendered first."""

    def __init__(self, folder, count=0, seed=1, renderer=None):
        self.renderer = renderer or Renderer()
        os.makedirs(folder, exist_ok=True)
        names = [os.path.join(folder, name) for name in ("heads.npy", "truth.npy")]
        shapes = [(count, SIDE, SIDE, 4), (count, self.renderer.truth_floats)]
        if count and not all(map(os.path.exists, names)):
            for name, shape, kind in zip(names, shapes, (np.uint8, np.float32)):
                np.lib.format.open_memmap(name, "w+", kind, shape)
        self.heads, self.truth = (np.load(name, mmap_mode="r+" if count else "r")
                                  for name in names)
        for i in range(len(self.heads)) if count else ():
            if not self.truth[i].any():
                self.heads[i], self.truth[i] = self.renderer.head(seed, i)
            if i % 500 == 499:
                print(f"rendered {i + 1} of {len(self.heads)} heads", flush=True)
        # One that is still being filled serves as far as it is.
        ready = int(self.truth.any(axis=1).sum())
        self.source = _pointer(self.heads), _pointer(self.truth), 0, ready, SIDE

    def scene(self, seed, width=WIDTH, height=HEIGHT):
        """A picture (height x width x 3, RGB) and its boxes: x1, y1, x2, y2 in pixels, 1 for a
        face that must be found, 0 for one that may be."""
        rgb = np.empty((height, width, 3), np.uint8)
        boxes = np.zeros((MOST_FACES, 5), np.float32)
        found = self.renderer.library.render_scene(ctypes.c_uint64(seed), *self.source, width,
                                                   height, _pointer(rgb), _pointer(boxes))
        return rgb, boxes[:found]

    def crop(self, seed, side=CROP):
        """A crop (side x side x 3, RGB), its landmarks (x, y from 0 to 1, 1 for seen) and the
        truth of its head."""
        rgb = np.empty((side, side, 3), np.uint8)
        points = np.empty((POINTS, 3), np.float32)
        head = self.renderer.library.render_crop(ctypes.c_uint64(seed), *self.source, side,
                                                 _pointer(rgb), _pointer(points))
        return rgb, points, self.truth[head]
