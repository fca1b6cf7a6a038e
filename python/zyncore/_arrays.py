"""numpy arrays on the library's memory, and the order of their axes.

The library counts extents fastest first, numpy slowest first: dims {W, H, C} are an array of
shape (C, H, W).
"""

from __future__ import annotations

from typing import Any, Sequence

import numpy as np
from numpy.typing import ArrayLike

from ._records import BLOCKED, FPI16, INTERLEAVED, Tensor

_TYPES = {FPI16: "<i2", 6: "<f4", 7: "<f8"}


class _Memory:
    """What an array lies on: as long as the array lives, so does the owner."""

    def __init__(self, address: int, shape: tuple[int, ...], dtype: str, owner: Any,
                 strides: tuple[int, ...] | None, writable: bool) -> None:
        self.owner = owner
        self.__array_interface__ = {"version": 3, "data": (address, not writable),
                                    "shape": shape, "typestr": dtype, "strides": strides}


def view(address: int, shape: Sequence[int], dtype: Any, owner: Any,
         strides: tuple[int, ...] | None = None, writable: bool = True) -> np.ndarray:
    """An array on memory that owner keeps alive; nothing is copied."""
    return np.asarray(_Memory(address, tuple(shape), np.dtype(dtype).str, owner, strides,
                              writable))


def shape_of(dims: Sequence[int], leading: int = 0) -> tuple[int, ...]:
    """The numpy shape of extents that stand fastest first, behind leading axes of 1."""
    return (1,) * leading + tuple(reversed(dims))


def tensor_view(tensor: Tensor, leading: int, owner: Any, writable: bool) -> np.ndarray:
    """A tensor's elements, planar order taken for granted."""
    return view(tensor.data, shape_of(tensor.dims[:tensor.dim_count], leading),
                _TYPES[tensor.type], owner, writable=writable)


def planar_copy(tensor: Tensor, leading: int) -> np.ndarray:
    """A copy of a tensor's elements in planar order, whatever their order is."""
    array = tensor_view(tensor, 0, None, False)
    if tensor.layout in (BLOCKED, INTERLEAVED) and array.ndim >= 3:
        images = array.reshape(-1, *array.shape[-3:])
        order = _unblock if tensor.layout == BLOCKED else _interleaved
        array = np.stack([order(image) for image in images]).reshape(array.shape)
    return array.reshape((1,) * leading + array.shape).copy()


def _interleaved(image: np.ndarray) -> np.ndarray:
    channels, rows, columns = image.shape
    return image.reshape(rows, columns, channels).transpose(2, 0, 1)


def _unblock(image: np.ndarray) -> np.ndarray:
    """Blocks of 8 channels, then one of 4 where 4 are left, then single ones."""
    channels, pixels = image.shape[0], image[0].size
    flat, planar = image.reshape(-1), np.empty((channels, pixels), image.dtype)
    first = 0
    while first < channels:
        group = next(size for size in (8, 4, 1) if channels - first >= size)
        block = flat[first * pixels:(first + group) * pixels]
        planar[first:first + group] = block.reshape(pixels, group).T
        first += group
    return planar.reshape(image.shape)


def tensor_on(array: np.ndarray) -> Tensor:
    """A planar tensor record on a C-contiguous array's memory, which the record keeps alive."""
    if not array.flags.c_contiguous or not 1 <= array.ndim <= 5 or array.size == 0:
        raise ValueError(f"one to five axes in C order are needed, found {array.shape}")
    types = [code for code, name in _TYPES.items() if np.dtype(name) == array.dtype]
    if not types:
        raise ValueError(f"elements are int16, float32 or float64, not {array.dtype}")
    dims = array.shape[::-1]
    tensor = Tensor(kind=16, type=types[0], data=array.ctypes.data, dim_count=array.ndim,
                    element_size=array.itemsize, byte_size=array.nbytes, count=array.size)
    tensor.dims[:array.ndim] = dims
    tensor.strides[:array.ndim - 1] = [s for s in reversed(array.strides[:-1])]
    tensor.array = array
    return tensor


def address(array: np.ndarray | None) -> int | None:
    """Where an array's elements lie, for an argument; the caller keeps the array."""
    return None if array is None else array.ctypes.data


def run_of(values: ArrayLike, dtype: str, width: int, what: str) -> np.ndarray:
    """Values as rows of the given width in C order; copied only where they have to be."""
    array = np.ascontiguousarray(values, dtype)
    if array.size == 0 and array.ndim == 1:
        array = array.reshape(0, width)
    if array.ndim != 2 or array.shape[1] != width:
        raise ValueError(f"{what}: the shape (n, {width}) is needed, found {array.shape}")
    return array
