"""From pictures to detector inputs, and from detector outputs to boxes.

Boxes are rows of four floats: in centre form (centre x, centre y, width, height), in corner
form (x1, y1, x2, y2). Detections are rows of five, a box in corner form and its score.
"""

from __future__ import annotations

import math
import os
from typing import NamedTuple, Sequence

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native
from ._records import ChannelOrder, Meaning, ResizeRule
from .image import Format, Image
from .net import Net, Port


def ssd_input(image: Image, out: np.ndarray | None = None) -> np.ndarray:
    """The image as planes red, green, blue, (3, height, width): float32 (byte - 127.5) / 128,
    or into an out of int16 byte - 127. BGR and RGB images."""
    return _planes(image, out, "ssd")


def pfld_input(image: Image, out: np.ndarray | None = None) -> np.ndarray:
    """The image as planes blue, green, red, (3, height, width): float32 byte / 255, or into an
    out of int16 the same in fixed point with 14 fraction bits. BGR and RGB images."""
    return _planes(image, out, "pfld")


def _planes(image: Image, out: np.ndarray | None, network: str) -> np.ndarray:
    if image.format not in (Format.BGR, Format.RGB):
        raise ValueError(f"an image of format BGR or RGB is needed, found {image.format.name}")
    shape = (3, image.height, image.width)
    if out is None:
        out = np.empty(shape, np.float32)
    if out.shape[-3:] != shape or out.size != np.prod(shape) or not out.flags.writeable or \
            out.dtype not in (np.float32, np.int16):
        raise ValueError(f"out is writable, float32 or int16, of the shape {shape}; found "
                         f"{out.dtype} {out.shape}")
    order = "_rgb24" if image.format == Format.RGB else ""
    bits = "_fp16" if out.dtype == np.int16 else ""
    transform = getattr(_native, f"zyn_transform_image_data_for_{network}_detector{order}{bits}")
    transform(_arrays.tensor_on(out), image._record)
    return out


class Placement(NamedTuple):
    """Where an input lies in its picture: pixel = fraction * size + offset, along x and y."""
    size: tuple[float, float]
    offset: tuple[float, float]

    def boxes(self, boxes: np.ndarray) -> np.ndarray:
        """Corners in fractions of the input, (n, 4 or more) -> the same in picture pixels."""
        placed = np.array(boxes, np.float32)
        placed[:, :4] = placed[:, :4] * np.float32(self.size * 2) + np.float32(self.offset * 2)
        return placed


def fill(net: Net, image: Image, name: str | None = None) -> Placement:
    """Puts a picture into a network's input (the first without a name) as the network's file
    says: size (with a border where it does not say how), order of channels, mean and scale.
    BGR, RGB and GRAY images."""
    port = net.inputs[name] if name else next(iter(net.inputs.values()))
    to = net.input(port.name)
    if port.channel_order == ChannelOrder.NONE or to.ndim < 3:
        raise ValueError(f"the input '{port.name}' is not a picture")
    planes, height, width = to.shape[-3:]
    image, placement = _fit(image, width, height, port.resize)
    values = _channels(image, port, planes).astype(np.float32)
    axes = (planes, 1, 1)
    values -= np.float32(port.mean[:planes]).reshape(axes)
    values *= np.float32(port.scale[:planes]).reshape(axes)
    if to.dtype == np.int16:
        values = np.clip(np.rint(np.ldexp(values, port.q)), -32768, 32767)
    to[...] = values
    return placement


def _fit(image: Image, width: int, height: int, rule: ResizeRule) -> tuple[Image, Placement]:
    """The picture in the input's size, and where the input lies in the picture."""
    size, offset = (image.width, image.height), (0, 0)
    if rule in (ResizeRule.BORDER, ResizeRule.NONE):
        if image.format == Format.GRAY:
            image = Image.from_array(np.repeat(image.array[..., None], 3, axis=2))
        padded = image.border(height / width)
        image, offset = padded.image, (-padded.left, -padded.top)
        size = image.width, image.height
    elif rule == ResizeRule.CROP:
        part = min(image.width / width, image.height / height)
        size = max(1, round(width * part)), max(1, round(height * part))
        offset = (image.width - size[0]) // 2, (image.height - size[1]) // 2
        image = image.crop(*offset, *size)
    return image.resize(width, height), Placement(tuple(map(float, size)),
                                                  tuple(map(float, offset)))


def _channels(image: Image, port: Port, planes: int) -> np.ndarray:
    """The bytes as planes in the order that the input wants."""
    if port.channel_order == ChannelOrder.GREY:
        grey = image if image.format == Format.GRAY else image.convert(Format.GRAY)
        return grey.array[None]
    if planes != 3:
        raise ValueError(f"the input '{port.name}' has {planes} planes")
    if image.format == Format.GRAY:
        return np.broadcast_to(image.array, (3, *image.array.shape))
    if image.format not in (Format.BGR, Format.RGB):
        image = image.convert(Format.BGR)
    stands = ChannelOrder.BGR if image.format == Format.BGR else ChannelOrder.RGB
    step = 1 if stands == port.channel_order else -1
    return image.array.transpose(2, 0, 1)[::step]


def ssd_priors(width: int, height: int, *, transposed: bool = False) -> np.ndarray:
    """The prior boxes of the SSD detector in centre form, (n, 4) in fractions of the input;
    see zyn_generate_priors for the sizes."""
    record = _native.zyn_generate_priors(height, width, int(transposed))
    owned = _native.Owned(record, _native.zyn_release_tensor)
    return _arrays.tensor_view(record.contents, 0, owned, False)


def grid_priors(width: int, height: int, strides: Sequence[float],
                min_sizes: Sequence[Sequence[float]]) -> np.ndarray:
    """Prior boxes of any grids in centre form, (n, 4) in fractions of the input: level by
    level, row by row, one box per size; strides and sizes in pixels of the input."""
    levels = []
    for stride, sizes in zip(strides, min_sizes, strict=True):
        columns, rows = math.ceil(width / stride), math.ceil(height / stride)
        level = np.empty((rows, columns, len(sizes), 4), np.float32)
        level[..., 0] = ((np.arange(columns) + 0.5) / columns)[:, None]
        level[..., 1] = ((np.arange(rows) + 0.5) / rows)[:, None, None]
        level[..., 2] = np.array(sizes) / width
        level[..., 3] = np.array(sizes) / height
        levels.append(level.reshape(-1, 4))
    return np.clip(np.concatenate(levels), 0, 1)


def decode(offsets: ArrayLike, priors: ArrayLike, variances: tuple[float, float] = (0.1, 0.2)
           ) -> np.ndarray:
    """A network's offsets, (n, 4), and its priors -> boxes in corner form, (n, 4)."""
    offsets = _arrays.run_of(offsets, "<f4", 4, "offsets")
    priors = _arrays.run_of(priors, "<f4", 4, "priors")
    if len(offsets) != len(priors):
        raise ValueError(f"{len(offsets)} offsets, {len(priors)} priors")
    boxes = np.empty_like(offsets)
    _native.zyn_convert_locations_to_boxes(
        _arrays.address(boxes), _arrays.address(offsets), _arrays.address(priors), len(boxes),
        *variances)
    _native.zyn_center_form_to_corner_form(_arrays.address(boxes), len(boxes))
    return boxes


def suppress(detections: ArrayLike, iou_threshold: float = 0.3) -> np.ndarray:
    """Greedy non-maximum suppression: the detections, (n, 5), that stay, by falling score."""
    boxes = _arrays.run_of(detections, "<f4", 5, "detections")
    kept = np.empty_like(boxes)
    count = _native.zyn_ssd_nms(_arrays.address(kept), _arrays.address(boxes), len(boxes),
                                iou_threshold)
    return kept[:count].copy()


class Detector:
    """A face detector whose network file says how its outputs are read.

    Outputs that mean scores or probabilities, (priors, classes) with class 1 the face, and
    offsets, (priors, 4); metadata face.strides, face.min-sizes, face.variances.
    """

    def __init__(self, net: Net | str | os.PathLike[str] | bytes) -> None:
        self.net = net if isinstance(net, Net) else Net(net)
        ports = {port.meaning: port for port in self.net.outputs.values()}
        scores = ports.get(Meaning.SCORES) or ports.get(Meaning.PROBABILITIES)
        missing = [key for key in ("face.strides", "face.min-sizes", "face.variances")
                   if key not in self.net.metadata]
        if not scores or Meaning.OFFSETS not in ports or missing:
            raise ValueError("the network is no detector: it needs outputs that mean scores and "
                             "offsets, and the metadata face.strides, face.min-sizes, "
                             "face.variances")
        self._scores, self._offsets = scores, ports[Meaning.OFFSETS]
        height, width = next(iter(self.net.inputs.values())).shape[-2:]
        data = self.net.metadata
        self.variances = tuple(_numbers(data["face.variances"]))
        self.priors = grid_priors(width, height, _numbers(data["face.strides"]),
                                  [_numbers(g) for g in data["face.min-sizes"].split(";")])
        if self._offsets.shape[-2:] != self.priors.shape or \
                scores.shape[-2] != len(self.priors) or len(self.variances) != 2:
            raise ValueError(f"the metadata describe {len(self.priors)} priors, the outputs have "
                             f"the shapes {scores.shape} and {self._offsets.shape}")

    def __call__(self, image: Image, *, score: float = 0.7, iou_threshold: float = 0.3
                 ) -> np.ndarray:
        """The faces of a picture that score more: (n, 5), in pixels of the picture."""
        placement = fill(self.net, image)
        outputs = self.net.run(copy=False)
        scores = outputs[self._scores.name].reshape(len(self.priors), -1)
        if self._scores.meaning == Meaning.SCORES:
            scores = np.exp(scores - scores.max(axis=1, keepdims=True))
            scores /= scores.sum(axis=1, keepdims=True)
        chosen = scores[:, 1] > score
        offsets = outputs[self._offsets.name].reshape(-1, 4)[chosen]
        boxes = decode(offsets, self.priors[chosen], self.variances)
        found = np.column_stack([boxes, scores[chosen, 1]])
        return suppress(placement.boxes(found), iou_threshold)


def _numbers(text: str) -> list[float]:
    return [float(part) for part in text.split(",")]
