"""Camera poses from points (docs/geometry.md)."""

from __future__ import annotations

import ctypes
from typing import NamedTuple

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native


class Poses(NamedTuple):
    """camera point = rotation @ world point + translation."""
    rotations: np.ndarray     # (n, 3, 3)
    translations: np.ndarray  # (n, 3)


def solve_ap3p(world: ArrayLike, image: ArrayLike, camera: ArrayLike) -> Poses:
    """The poses that map three world points, (3, 3), onto three image points in pixels, (3, 2).

    camera, (3, 3): fx 0 cx / 0 fy cy / 0 0 1; it looks along +z, x to the right, y down. Up to
    four poses; drop those with points at z <= 0 and choose by a fourth point.
    """
    points = _shaped(world, (3, 3), "world")
    pixels = _shaped(image, (3, 2), "image")
    matrix = _shaped(camera, (3, 3), "camera")
    rotations, translations = np.empty((4, 3, 3)), np.empty((4, 3))
    count = ctypes.c_int32()
    _native.zyn_solve_ap3p(*map(_arrays.address, (rotations, translations, points, pixels,
                                                  matrix)), None, count)
    return Poses(rotations[:count.value], translations[:count.value])


def _shaped(values: ArrayLike, shape: tuple[int, ...], what: str) -> np.ndarray:
    array = np.ascontiguousarray(values, np.float32)
    if array.shape != shape:
        raise ValueError(f"{what}: the shape {shape} is needed, found {array.shape}")
    return array
