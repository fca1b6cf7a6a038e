"""Faces in moving pictures: found, followed, landmarked, smoothed and posed (docs/faces.md)."""

from __future__ import annotations

import ctypes
import os
from ctypes import POINTER, c_int32, pointer
from dataclasses import dataclass
from enum import IntEnum

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native
from ._records import FaceFrame, FaceOptions, FacePose, FaceRecord, FaceTimes
from .image import Format, Image
from .net import METHODS, Net

YUYV = 32  # a frame's format beside those of Format


class FaceState(IntEnum):
    """Where a face's values come from in a frame."""
    PREDICTED = 0  # not seen: the box is predicted, landmarks and pose are the latest ones
    FOLLOWED = 1   # seen by its landmarks
    DETECTED = 2


@dataclass(frozen=True)
class Pose:
    """camera point = rotation @ model point + translation; axes and angles as in docs/faces.md."""
    rotation: np.ndarray     # (3, 3)
    translation: np.ndarray  # (3), millimetres
    yaw: float               # degrees, positive to the picture's right
    pitch: float             # degrees, positive up
    roll: float              # degrees, positive clockwise
    error: float             # pixels


@dataclass(frozen=True)
class Face:
    """One face in one frame, in pixels; the arrays are copies."""
    id: int
    state: FaceState
    age: int     # frames since its first detection
    unseen: int  # frames since it was last seen
    score: float
    box: np.ndarray        # x1, y1, x2, y2
    landmarks: np.ndarray  # (n, 2), none without a landmark network
    smoothed: np.ndarray   # (n, 2)
    points: np.ndarray     # (5, 2): eyes, nose, corners of the mouth; for align()
    pose: Pose | None


def frame_of(picture: np.ndarray | Image, format: int | None = None) -> FaceFrame:
    """A frame record on a picture's memory, which the record keeps alive; nothing is copied.

    An Image of formats BGR, RGB, GRAY, I420, NV12 or NV21, or an array of bytes: (height, width, 3)
    BGR or as format says, (height, width) grey, (height, width, 2) YUYV. Rows may have any distance.
    """
    record = FaceFrame()
    if isinstance(picture, Image):
        record.format, record.width, record.height = picture.format, picture.width, picture.height
        planes = picture.planes
    else:
        if picture.dtype != np.uint8 or picture.ndim not in (2, 3):
            raise ValueError(f"frames are bytes of two or three axes, not {picture.dtype} of the "
                             f"shape {picture.shape}")
        pixel = picture.shape[2] if picture.ndim == 3 else 1
        usual = {1: Format.GRAY, 2: YUYV, 3: Format.BGR}
        if pixel not in usual or (format is not None and
                                  pixel != {Format.GRAY: 1, YUYV: 2}.get(format, 3)):
            raise ValueError(f"{pixel} bytes a pixel are not those of a frame's format")
        packed = (pixel, 1) if picture.ndim == 3 else (1,)
        if picture.strides[1:] != packed or picture.strides[0] < picture.shape[1] * pixel:
            picture = np.ascontiguousarray(picture)
        record.format = usual[pixel] if format is None else format
        record.height, record.width = picture.shape[:2]
        planes = [picture]
    for k, plane in enumerate(planes):
        record.planes[k] = plane.ctypes.data
        record.strides[k] = plane.strides[0]
    record.keeps = planes
    return record


class Faces:
    """A session: give it frame after frame.

    detector, landmarks: network files by path, their content as bytes, or a loaded Net, which then
    belongs to the session's thread. Without landmarks faces have boxes only. The other settings are
    the fields of zyn_face_options (include/zyncore_face.h), with its defaults:
    detect_every, max_faces, score_threshold, keep_threshold, overlap_threshold, resize, max_age,
    min_hits, track_overlap, smooth_cutoff, smooth_beta, smooth_derivative, focal_length, remember,
    second_look.
    """

    def __init__(self, detector: str | os.PathLike[str] | bytes | Net,
                 landmarks: str | os.PathLike[str] | bytes | Net | None = None, *,
                 method: str | int = "automatic", fixed_point: bool = False,
                 **settings: float) -> None:
        if method not in METHODS:
            raise ValueError(f"method {method!r}: one of {list(METHODS)} is expected")
        options = FaceOptions(method=METHODS[method], fixed_point=int(fixed_point),
                              **FaceOptions.DEFAULTS)
        for name, value in settings.items():
            if name not in FaceOptions.DEFAULTS:
                raise TypeError(f"no setting is called '{name}'; there are: " +
                                ", ".join(FaceOptions.DEFAULTS))
            setattr(options, name, value)
        self._keeps = [_source(options, "detector", detector),
                       _source(options, "landmarks", landmarks)]
        self._owned = _native.Owned(_native.zyn_face_create(options), _native.zyn_face_release)

    def __call__(self, picture: np.ndarray | Image, time: float, *, format: int | None = None
                 ) -> list[Face]:
        """The faces of the next frame, in the order of their ids; time in seconds."""
        frame, faces, count = frame_of(picture, format), POINTER(FaceRecord)(), c_int32()
        _native.zyn_face_process(self._owned.pointer, frame, time, faces, count)
        return [_face(faces[i]) for i in range(count.value)]

    def reset(self) -> None:
        """Forgets all faces; ids go on."""
        _native.zyn_face_reset(self._owned.pointer)

    @property
    def times(self) -> dict[str, float]:
        """Milliseconds that the stages of the latest frame took."""
        times = FaceTimes()
        _native.zyn_face_get_times(self._owned.pointer, times)
        return {name: getattr(times, name) for name, _ in FaceTimes._fields_}


def face_model() -> np.ndarray:
    """The head's 68 model points, (68, 3), in millimetres."""
    return np.ctypeslib.as_array(_native.zyn_face_model(), (68, 3)).copy()


def solve_pose(landmarks: ArrayLike, width: int, height: int, focal_length: float = 0
               ) -> Pose | None:
    """The pose of a head from its 68 landmarks, (68, 2), in a frame of this size; None where no
    head explains them."""
    points, pose = _points(landmarks, 68), FacePose()
    try:
        _native.zyn_face_solve_pose(_arrays.address(points), width, height, focal_length, pose)
    except _native.Error as error:
        if error.code != 32:
            raise
    return _pose(pose)


def align(picture: np.ndarray | Image, points: ArrayLike, size: int = 112, *,
          format: int | None = None, to: Format = Format.BGR) -> Image:
    """The standard crop of size x size pixels of the face with these five points, (5, 2)."""
    frame, five, out = frame_of(picture, format), _points(points, 5), Image(size, size, to)
    _native.zyn_face_align(out._record, frame, _arrays.address(five), size)
    return out


def _points(values: ArrayLike, count: int) -> np.ndarray:
    points = np.ascontiguousarray(values, np.float32)
    if points.shape != (count, 2):
        raise ValueError(f"points of the shape ({count}, 2) are needed, found {points.shape}")
    return points


def _source(options: FaceOptions, what: str, network: object) -> object:
    """Names a network in the options; what has to live as long as they."""
    if isinstance(network, Net):
        setattr(options, what + "_net", network._handle)
        return network._owned
    if isinstance(network, (bytes, bytearray, memoryview)):
        data = ctypes.create_string_buffer(bytes(network), len(network))
        setattr(options, what + "_data", ctypes.addressof(data))
        setattr(options, what + "_bytes", len(network))
        return data
    if network is not None:
        setattr(options, what, _native.encode_path(network))
    return None


def _pose(pose: FacePose) -> Pose | None:
    if not pose.valid:
        return None
    return Pose(np.array(pose.rotation, np.float32).reshape(3, 3),
                np.array(pose.translation, np.float32), pose.yaw, pose.pitch, pose.roll,
                pose.error)


def _face(face: FaceRecord) -> Face:
    def values(at: object) -> np.ndarray:
        if not face.landmark_count:
            return np.empty((0, 2), np.float32)
        return np.ctypeslib.as_array(at, (face.landmark_count, 2)).copy()
    return Face(face.id, FaceState(face.state), face.age, face.unseen, face.score,
                np.array(face.box, np.float32), values(face.landmarks), values(face.smoothed),
                np.array(face.points, np.float32).reshape(5, 2), _pose(face.pose))
