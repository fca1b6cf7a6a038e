"""Networks from files (docs/networks.md).

Arrays have the axes of the network's own notation: an input of 320 x 240 pixels in three
planes with a batch axis in front is an array of shape (1, 3, 240, 320).
"""

from __future__ import annotations

import ctypes
import os
import threading
from dataclasses import dataclass
from types import TracebackType
from typing import Mapping

import numpy as np
from numpy.typing import ArrayLike

from . import _arrays, _native
from ._records import (ChannelOrder, F32, FPI16, Meaning, NetMemoryUse, NetOptions, NetPort,
                       Operator, ResizeRule, Tensor)

METHODS: dict[str | int, int] = {"automatic": -1, "timed": -2, 0: 0, 1: 1, 2: 2}


@dataclass(frozen=True)
class Port:
    """An input or an output."""
    name: str
    node: int                    # id of its node
    shape: tuple[int, ...]       # of its array, leading axes of 1 included
    leading: int                 # how many of those there are
    channel_order: ChannelOrder  # inputs: whether it is a picture, and its planes' order
    resize: ResizeRule           # inputs: how a picture gets the input's size
    mean: tuple[float, ...]      # inputs: value = (byte - mean) * scale, by plane
    scale: tuple[float, ...]
    meaning: Meaning             # outputs
    q: int                       # fixed point: fraction bits; else 0


@dataclass(frozen=True)
class Node:
    """A node as it was prepared."""
    id: int
    name: str
    type: int               # a number of Operator
    operation: str          # its name
    shape: tuple[int, ...]  # of its output without leading axes; () where there is none
    method: int | None      # convolutions: 0 to 6
    parameters: int         # floats of the constants that it reads
    multiply_adds: int


@dataclass(frozen=True)
class Memory:
    """Bytes that a network takes."""
    weights: int
    activations: int
    scratch: int
    total: int


class Net:
    """A network, loaded and ready to run.

    file: the path of a network file, or its content as bytes.
    method: how convolutions compute. "automatic": as the file says, else by a table of costs;
        "timed": the fastest on this machine; 0, 1, 2: that method wherever it can.
    fixed_point: 16-bit fixed point, by the file's fraction bits.
    keep_all: every node's output can be read after a run (`node`), for more memory.
    exact: no convolution by Winograd's method, whose sums differ from those of methods 0 to 2.

    Failures raise `zyncore.Error`. One network serves one thread at a time: runs of several
    threads wait for each other. Several networks run beside each other. The memory is freed
    when the network and all views of it are gone; `with` and `close` are for those who want
    an error from a network that is used too late.
    """

    def __init__(self, file: str | os.PathLike[str] | bytes, *, method: str | int = "automatic",
                 fixed_point: bool = False, keep_all: bool = False,
                 exact: bool = False) -> None:
        if method not in METHODS:
            raise ValueError(f"method {method!r}: one of {list(METHODS)} is expected")
        options = NetOptions(METHODS[method], int(fixed_point), int(keep_all), int(exact), 0)
        if isinstance(file, (bytes, bytearray, memoryview)):
            data = bytes(file)
            pointer = _native.zyn_net_load_memory(data, len(data), options)
        else:
            pointer = _native.zyn_net_load(_native.encode_path(file), options)
        self._owned: _native.Owned | None = _native.Owned(pointer, _native.zyn_net_release)
        self._lock = threading.RLock()
        self.fixed_point, self.keep_all = bool(fixed_point), bool(keep_all)
        self._describe()

    def _describe(self) -> None:
        d = _native.zyn_net_describe(self._handle).contents
        self.inputs: dict[str, Port] = _ports(d.inputs[:d.input_count])
        self.outputs: dict[str, Port] = _ports(d.outputs[:d.output_count])
        self.nodes: list[Node] = [
            Node(i, n.name.decode(), n.type, n.operation.decode(),
                 _arrays.shape_of(n.dims[:n.dim_count]), n.method if n.method >= 0 else None,
                 n.parameters, n.multiply_adds)
            for i, n in enumerate(d.nodes[:d.node_count])]
        self.metadata: dict[str, str] = {
            d.metadata_keys[i].decode(): d.metadata_values[i].decode()
            for i in range(d.metadata_count)}
        self.parameters: int = d.parameters
        self.multiply_adds: int = d.multiply_adds

    @property
    def _handle(self) -> ctypes.c_void_p:
        if self._owned is None:
            raise ValueError("the network has been closed")
        return self._owned.pointer

    @property
    def memory(self) -> Memory:
        use = NetMemoryUse()
        _native.zyn_net_memory(self._handle, use)
        return Memory(use.weights, use.activations, use.scratch, use.total)

    def input(self, name: str | None = None) -> np.ndarray:
        """The memory of an input (of the first without a name), to be filled before `run()`.

        A writable view of the input's shape: float32, in fixed point int16 with the input's
        fraction bits. A run may overwrite it. It stays valid as long as it is referred to.
        """
        port = _find(self.inputs, name, "input")
        tensor = _native.zyn_net_input(self._handle, _native.encode(port.name)).contents
        return _arrays.tensor_view(tensor, port.leading, self._owned, True)

    def output(self, name: str | None = None, *, raw: bool = False, copy: bool = True
               ) -> np.ndarray:
        """An output of the latest run (the first without a name), of the output's shape.

        float32; raw: in fixed point the int16 values as they are. Without copy a view of the
        network's memory, which the next run overwrites and which cannot be written; values
        that have to be converted come as a copy all the same.
        """
        port = _find(self.outputs, name, "output")
        tensor = _native.zyn_net_output(self._handle, _native.encode(port.name)).contents
        array = _arrays.tensor_view(tensor, port.leading, self._owned, False)
        if array.dtype == np.int16 and not raw:
            return _to_float(array, port.q)
        return array.copy() if copy else array

    def run(self, inputs: ArrayLike | Mapping[str, ArrayLike] | None = None, *,
            copy: bool = True) -> dict[str, np.ndarray]:
        """Computes all outputs: arrays by name, float32, of the outputs' shapes.

        inputs: an array for the network's only input, or arrays by name; none where `input()`
        has been filled. An array has the input's shape; leading axes of 1 may be left out.
        Whatever its strides, its values are copied once, into the network's memory; in fixed
        point they are rounded to the input's fraction bits.
        Without copy the outputs are views that the next run overwrites.
        """
        with self._lock:
            for name, value in self._by_name(inputs).items():
                self._fill(_find(self.inputs, name, "input"), np.asarray(value))
            _native.zyn_net_run(self._handle)
            return {name: self.output(name, copy=copy) for name in self.outputs}

    def node(self, node: int | str, *, leading: int | None = None, raw: bool = False
             ) -> np.ndarray:
        """A copy of a node's output in the latest run, by id or name; needs keep_all.

        Its axes are those of the network's notation: planar, behind as many axes of 1 as
        leading says (without: as the output or input of this node, one for other nodes).
        Nodes that work in place and their inputs give the same, later values.
        """
        if not self.keep_all:
            raise ValueError("node outputs are kept with Net(..., keep_all=True) only")
        node = self._id(node)
        for port in (*self.inputs.values(), *self.outputs.values()):
            if port.node == node and leading is None:
                leading = port.leading
        tensor = self._tensor(node)
        q = _native.zyn_cg_get_q_from_list(self._graph, node) if self.fixed_point else 0
        array = _arrays.planar_copy(tensor, 1 if leading is None else leading)
        return _to_float(array, q) if array.dtype == np.int16 and not raw else array

    def close(self) -> None:
        """Lets the network go; views of it stay valid. Every later use raises ValueError."""
        with self._lock:
            self._owned = None

    def __enter__(self) -> Net:
        return self

    def __exit__(self, kind: type[BaseException] | None, value: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    def __repr__(self) -> str:
        def ports(of: dict[str, Port]) -> str:
            return ", ".join(f"{p.name} {p.shape}" for p in of.values())
        return f"<zyncore.Net {ports(self.inputs)} -> {ports(self.outputs)}>"

    @property
    def _graph(self) -> int:
        return _native.zyn_net_graph(self._handle)

    def _id(self, node: int | str) -> int:
        if isinstance(node, str):
            found = [n.id for n in self.nodes if n.name == node]
            if not found:
                raise KeyError(f"no node is called '{node}'")
            return found[0]
        if not 0 <= node < len(self.nodes):
            raise KeyError(f"node {node}: there are {len(self.nodes)}")
        return node

    def _tensor(self, node: int) -> Tensor:
        for port in self.inputs.values():
            if port.node == node:
                return _native.zyn_net_input(self._handle, _native.encode(port.name)).contents
        tensor = _native.zyn_get_computation_node_inference_data(self._graph, node)
        if not tensor:
            raise ValueError(f"node {node} ({self.nodes[node].operation}) has no output")
        return tensor.contents

    def _by_name(self, inputs: ArrayLike | Mapping[str, ArrayLike] | None
                 ) -> Mapping[str, ArrayLike]:
        if inputs is None:
            return {}
        if not isinstance(inputs, Mapping):
            if len(self.inputs) != 1:
                raise ValueError("the network has several inputs: pass a dict with " +
                                 ", ".join(self.inputs))
            return {next(iter(self.inputs)): inputs}
        missing = [name for name in self.inputs if name not in inputs]
        if missing:
            raise ValueError("no array for the input " + ", ".join(missing))
        return inputs

    def _fill(self, port: Port, array: np.ndarray) -> None:
        shapes = [port.shape[i:] for i in range(port.leading + 1)]
        if array.shape not in shapes:
            raise ValueError(f"input '{port.name}' has the shape {port.shape}, the array "
                             f"{array.shape}")
        target = self.input(port.name)
        if np.may_share_memory(target, array) and np.array_equal(
                target.__array_interface__["data"], array.__array_interface__["data"]):
            return  # the input's own memory, filled already
        if target.dtype == np.int16 and array.dtype != np.int16:
            array = _to_fixed(array, port.q)
        np.copyto(target, array.reshape(port.shape), casting="same_kind")


def _ports(ports: list[NetPort]) -> dict[str, Port]:
    return {p.name.decode(): Port(
        p.name.decode(), p.node, _arrays.shape_of(p.dims[:p.dim_count], p.leading), p.leading,
        ChannelOrder(p.channel_order), ResizeRule(p.resize), tuple(p.mean), tuple(p.scale),
        Meaning(p.meaning), p.q) for p in ports}


def _find(ports: dict[str, Port], name: str | None, what: str) -> Port:
    if name is None:
        return next(iter(ports.values()))
    if name not in ports:
        raise KeyError(f"no {what} is called '{name}'; there are: " + ", ".join(ports))
    return ports[name]


def _to_float(array: np.ndarray, q: int) -> np.ndarray:
    return np.ldexp(array.astype(np.float32), -q)


def _to_fixed(array: np.ndarray, q: int) -> np.ndarray:
    """Nearest values with q fraction bits; what is too large becomes the largest."""
    return np.clip(np.rint(np.ldexp(array.astype(np.float32), q)), -32768, 32767).astype(np.int16)
