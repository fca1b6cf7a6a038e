"""Following boxes from frame to frame, and smoothing of values (docs/tracking.md)."""

from __future__ import annotations

import ctypes
from ctypes import c_float, c_uint32, pointer
from typing import NamedTuple

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native
from ._records import OneEuroParam, SortParam, TrackInfo


class Tracks(NamedTuple):
    """The tracks to show: boxes (n, 4) in corner form and their ids (n)."""
    boxes: np.ndarray
    ids: np.ndarray


class Tracker:
    """Gives every box an id that stays the same from frame to frame.

    max_age: frames that a track lives without a detection. min_hits: frames in a row with one
    before a track is shown. iou_threshold: least overlap with the enlarged predicted box.
    """

    def __init__(self, max_age: int = 1, min_hits: int = 3, iou_threshold: float = 0.3) -> None:
        param = SortParam(max_age, min_hits, iou_threshold, 0)
        self._owned = _native.Owned(_native.zyn_create_sort_handle(param),
                                    _native.zyn_release_sort_handle)
        self.iou_threshold = iou_threshold

    def update(self, detections: ArrayLike) -> np.ndarray:
        """One frame's detections, (n, 4 or 5), none included -> the id of each one's track, (n).

        Call it for every frame. Boxes that are not finite are refused.
        """
        found = np.asarray(detections, np.float32)
        found = found.reshape(0, 5) if found.size == 0 else found
        if found.ndim != 2 or found.shape[1] not in (4, 5) or not np.isfinite(found).all():
            raise ValueError("detections are finite numbers of the shape (n, 4) or (n, 5)")
        count = len(found)
        boxes = np.zeros((max(count, 1), 5), np.float32)
        boxes[:count, :found.shape[1]] = found
        matches = self._match(boxes, count, self._predict())
        ids = np.empty(max(count, 1), np.int32)
        _native.zyn_sort_update_detection(_arrays.address(boxes), _arrays.address(ids), None,
                                          count, matches.pointer, self._owned.pointer)
        return ids[:count]

    @property
    def tracks(self) -> Tracks:
        """The tracks that got a detection in the latest frame."""
        info = _native.zyn_sort_get_track_info(self._owned.pointer)
        owned = _native.Owned(info, _native.zyn_release_track_info)
        return Tracks(_boxes(info.contents),
                      _values(info.contents.ids, (info.contents.count,), c_uint32))

    def _predict(self) -> np.ndarray:
        """Where every track should be, (n, 5)."""
        info = _native.zyn_create_sort_predict(self._owned.pointer)
        owned = _native.Owned(info, _native.zyn_release_track_info)
        predicted = np.zeros((info.contents.count, 5), np.float32)
        predicted[:, :4] = _boxes(info.contents)
        return predicted

    def _match(self, boxes: np.ndarray, count: int, predicted: np.ndarray) -> _native.Owned:
        if count > 0 and len(predicted) > 0:
            info = _native.zyn_associate_detections_to_trackers(
                _arrays.address(boxes), count, _arrays.address(predicted), len(predicted),
                self.iou_threshold)
        else:
            info = _native.zyn_create_sort_match_info(0, count)
            for i in range(count):
                info.contents.unmatched[i] = i
        return _native.Owned(info, _native.zyn_release_sort_match_info)


def _values(at: object, shape: tuple[int, ...], kind: type) -> np.ndarray:
    """A copy of the library's values; a null pointer for none."""
    if 0 in shape:
        return np.empty(shape, kind)
    return _arrays.view(ctypes.cast(at, ctypes.c_void_p).value, shape, kind, None).copy()


def _boxes(info: TrackInfo) -> np.ndarray:
    return _values(info.boxes, (info.count, 4), c_float)


class OneEuro:
    """Smooths values that come at regular intervals: much at rest, little in motion.

    interval: seconds from one sample to the next. min_cutoff: hertz at rest. beta: by how much
    speed raises the cut-off frequency. derivative_cutoff: hertz.
    """

    def __init__(self, interval: float, *, min_cutoff: float = 1.0, beta: float = 0.0,
                 derivative_cutoff: float = 1.0) -> None:
        if not interval > 0:
            raise ValueError("the interval is above 0 seconds")
        self._param = OneEuroParam(interval, derivative_cutoff, min_cutoff, beta)
        self._state: tuple[np.ndarray, np.ndarray] | None = None

    def __call__(self, values: ArrayLike) -> np.ndarray:
        """One sample of any shape, the same in every call -> the smoothed values."""
        x = np.asarray(values, np.float32)
        if self._state is None:
            self._state = x.copy(), np.zeros_like(x)
        previous, slopes = self._state
        if x.shape != previous.shape:
            raise ValueError(f"samples had the shape {previous.shape}, this one {x.shape}")
        step, slope = _native.zyn_one_euro_filter_v2, c_float()
        at, param = pointer(slope), pointer(self._param)
        smooth, changed = np.empty_like(x), np.empty_like(x)
        for i in np.ndindex(x.shape):
            smooth[i] = step(float(x[i]), float(previous[i]), float(slopes[i]), param, at)
            changed[i] = slope.value
        self._state = smooth, changed
        return smooth.copy()
