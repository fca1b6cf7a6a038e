"""What the attributes and constant inputs of ONNX operators mean, the same for every opset: used
by shape inference and by the mapping.
"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from .graph import Graph, Node, Refusal, Shape, shape_text


def axis_of(axis: int, rank: int) -> int:
    if not -rank <= axis < max(rank, 1):
        raise Refusal(f"there is no axis {axis} in {rank} axes")
    return axis + rank if axis < 0 else axis


def axes_of(graph: Graph, node: Node, rank: int, index: int = 1) -> list[int] | None:
    """The attribute or input "axes", ascending; None where it is missing."""
    axes = graph.whole_numbers(node, index, "axes")
    if axes is None:
        return None
    found = sorted(axis_of(a, rank) for a in axes)
    if len(set(found)) != len(found):
        raise Refusal(f"an axis is named twice in {axes}")
    return found


@dataclass
class Window:
    """Of a convolution or pooling, by spatial axis in ONNX order."""

    kernel: list[int]
    stride: list[int]
    dilation: list[int]
    before: list[int]
    after: list[int]
    out: list[int]


def window_of(node: Node, spatial: Shape, kernel: list[int]) -> Window:
    n = len(spatial)
    stride = node.integers("strides", [1] * n, n) or []
    dilation = node.integers("dilations", [1] * n, n) or []
    pads = node.integers("pads", [0] * 2 * n, 2 * n) or []
    ceil = node.integer("ceil_mode", 0) != 0
    if min(stride + dilation + kernel, default=1) < 1:
        raise Refusal(f"its kernel {kernel}, strides {stride} and dilations {dilation} have to be "
                      "at least 1")
    if max(stride + dilation + kernel + [abs(p) for p in pads]) > 2**16:
        raise Refusal("its kernel, strides, dilations or pads are beyond 65536")
    window = Window(kernel, stride, dilation, pads[:n], pads[n:], [])
    auto = node.text("auto_pad", "NOTSET")
    for i in range(n):
        reach = (kernel[i] - 1) * dilation[i] + 1
        if auto in ("SAME_UPPER", "SAME_LOWER"):
            out = -(-spatial[i] // stride[i])
            total = max((out - 1) * stride[i] + reach - spatial[i], 0)
            small = total // 2
            window.before[i] = small if auto == "SAME_UPPER" else total - small
            window.after[i] = total - window.before[i]
        elif auto == "VALID":
            window.before[i] = window.after[i] = 0
        elif auto != "NOTSET":
            raise Refusal(f"auto_pad '{auto}' is unknown")
        free = spatial[i] + window.before[i] + window.after[i] - reach
        if free < 0:
            raise Refusal(f"its kernel reaches over {reach} elements, the padded input "
                          f"{shape_text(spatial)} is smaller")
        out = (-(-free // stride[i]) if ceil else free // stride[i]) + 1
        if ceil and (out - 1) * stride[i] >= spatial[i] + window.before[i]:
            out -= 1  # a window that would begin behind the input
        window.out.append(out)
    return window


def conv_window(graph: Graph, node: Node) -> Window:
    """Also checks that input and weights fit each other."""
    shape, weights = graph.shape(node), graph.constant(node, 1, "weights").shape
    if len(shape) < 3 or len(weights) != len(shape):
        raise Refusal(f"input {shape_text(shape)} and weights {shape_text(weights)} do not fit")
    groups = node.integer("group", 1)
    if groups < 1 or weights[1] * groups != shape[1] or weights[0] % groups:
        raise Refusal(f"{shape[1]} channels, weights {shape_text(weights)} and {groups} groups do "
                      "not fit")
    kernel = node.integers("kernel_shape", weights[2:], len(weights) - 2) or []
    if tuple(kernel) != tuple(weights[2:]):
        raise Refusal(f"kernel {kernel} and weights {shape_text(weights)} differ")
    return window_of(node, shape[2:], kernel)


def transposed_window(graph: Graph, node: Node) -> Window:
    """Of a transposed convolution: before and after say what is cut off the full result, after
    is negative where something is added."""
    shape, weights = graph.shape(node), graph.constant(node, 1, "weights").shape
    n = len(shape) - 2
    groups = node.integer("group", 1)
    if n < 1 or len(weights) != n + 2 or weights[0] != shape[1] or groups < 1 \
            or weights[0] % groups:
        raise Refusal(f"input {shape_text(shape)}, weights {shape_text(weights)} and {groups} "
                      "groups do not fit")
    stride = node.integers("strides", [1] * n, n) or []
    dilation = node.integers("dilations", [1] * n, n) or []
    pads = node.integers("pads", [0] * 2 * n, 2 * n) or []
    extra = node.integers("output_padding", [0] * n, n) or []
    wanted = node.integers("output_shape")
    auto = node.text("auto_pad", "NOTSET")
    if min(stride + dilation) < 1 or max(stride + dilation + pads + extra) > 2**16:
        raise Refusal(f"its strides {stride} and dilations {dilation} have to be 1 to 65536")
    w = Window(list(weights[2:]), stride, dilation, pads[:n], pads[n:], [])
    for i in range(n):
        full = (shape[2 + i] - 1) * stride[i] + (w.kernel[i] - 1) * dilation[i] + 1
        if wanted is not None or auto.startswith("SAME"):
            out = wanted[-n:][i] if wanted is not None else shape[2 + i] * stride[i]
            total = full + extra[i] - out
            small = max(total, 0) // 2
            w.before[i] = small if auto == "SAME_UPPER" else max(total, 0) - small
            w.after[i] = total - w.before[i]
        elif auto == "VALID":
            w.before[i] = w.after[i] = 0
        w.after[i] -= extra[i]
        w.out.append(full - w.before[i] - w.after[i])
    return w


def pool_window(graph: Graph, node: Node) -> Window:
    shape = graph.shape(node)
    if len(shape) < 3:
        raise Refusal(f"an input {shape_text(shape)} has no space to pool over")
    if len(node.outputs) > 1 and node.outputs[1]:
        raise Refusal("the places of the maxima are asked for, which nothing here computes",
                      "use a resize in place of the unpooling")
    kernel = node.integers("kernel_shape", None, len(shape) - 2)
    if kernel is None:
        raise Refusal("its attribute 'kernel_shape' is missing")
    return window_of(node, shape[2:], kernel)


@dataclass
class Part:
    """Elements first, first + step, ... of an axis; none of a constant is possible."""

    axis: int
    first: int
    count: int
    step: int


def slice_parts(graph: Graph, node: Node) -> list[Part]:
    shape = graph.shape(node)
    starts = graph.whole_numbers(node, 1, "starts")
    ends = graph.whole_numbers(node, 2, "ends")
    if starts is None or ends is None:
        raise Refusal("it does not say where it begins and ends")
    axes = graph.whole_numbers(node, 3, "axes")
    steps = graph.whole_numbers(node, 4, "steps") if node.has(4) else None
    axes = list(range(len(starts))) if axes is None else axes
    steps = [1] * len(starts) if steps is None else steps
    if not len(starts) == len(ends) == len(axes) == len(steps):
        raise Refusal("its starts, ends, axes and steps differ in number")
    parts = []
    for start, end, axis, step in zip(starts, ends, axes, steps):
        axis = axis_of(axis, len(shape))
        if step == 0:
            raise Refusal("its step is 0")
        taken = range(*slice(start, end, step).indices(shape[axis])) if step > 0 or end >= -shape[
            axis] else range(*slice(start, None, step).indices(shape[axis]))
        parts.append(Part(axis, taken[0] if taken else 0, len(taken), step))
    return parts


def split_parts(graph: Graph, node: Node) -> list[Part]:
    shape = graph.shape(node)
    axis = axis_of(node.integer("axis", 0), len(shape))
    sizes = graph.whole_numbers(node, 1, "split")
    if sizes is None:
        sizes = [-(-shape[axis] // len(node.outputs))] * len(node.outputs)
    if sum(sizes) != shape[axis] or len(sizes) != len(node.outputs) or min(sizes) < 1:
        raise Refusal(f"the parts {sizes} do not make {shape[axis]} in {len(node.outputs)} outputs")
    return [Part(axis, sum(sizes[:i]), sizes[i], 1) for i in range(len(sizes))]


def reshaped(graph: Graph, node: Node) -> Shape:
    shape = graph.shape(node)
    target = graph.whole_numbers(node, 1, "shape")
    if target is None:
        raise Refusal("its shape is missing")
    if not node.integer("allowzero", 0):
        if any(n == 0 and i >= len(shape) for i, n in enumerate(target)):
            raise Refusal(f"the shape {target} copies an extent that {shape_text(shape)} has not")
        target = [shape[i] if n == 0 else n for i, n in enumerate(target)]
    count, known = int(np.prod(shape, dtype=object)), 1
    for n in target:
        known *= n if n != -1 else 1
    if target.count(-1) == 1 and known > 0 and count % known == 0:
        target = [count // known if n == -1 else n for n in target]
        known = count
    if known != count or any(n < 1 for n in target):
        raise Refusal(f"{shape_text(shape)} cannot take the shape {shape_text(target)}")
    return tuple(target)


def pads_of(graph: Graph, node: Node) -> list[tuple[int, int]]:
    """Elements before and behind each axis."""
    rank = len(graph.shape(node))
    pads = graph.whole_numbers(node, 1, "pads")
    if pads is None or len(pads) != 2 * rank or max(map(abs, pads)) > 2**24:
        raise Refusal(f"{2 * rank} pads are needed, found {pads}")
    return list(zip(pads[:rank], pads[rank:]))


@dataclass
class Resize:
    out: Shape
    scales: list[float] | None  # None: the quotients of the extents
    mode: str
    place: str
    rounding: str


def resize_of(graph: Graph, node: Node) -> Resize:
    shape = graph.shape(node)
    mode = node.text("mode", "nearest")
    if mode not in ("nearest", "linear", "cubic"):
        raise Refusal(f"mode '{mode}' is not computed", "use nearest or linear (bilinear) resizing")
    old = node.op == "Upsample" or graph.opset < 11
    at = 1 if old else 2
    scales = graph.constant(node, at, "scales") if node.has(at) else np.zeros(0)
    sizes = graph.constant(node, 3, "sizes") if node.has(3) and not old else None
    place = "asymmetric" if old else node.text("coordinate_transformation_mode", "half_pixel")
    rounding = "floor" if old else node.text("nearest_mode", "round_prefer_floor")
    if sizes is not None and sizes.size:
        out = tuple(int(n) for n in sizes.reshape(-1))
        factors = None
    else:
        factors = [float(f) for f in scales.reshape(-1)]
        if not all(np.isfinite(f) and 0 < f <= 2**16 for f in factors):
            raise Refusal(f"its scales {factors} are not above 0")
        out = tuple(int(np.floor(n * np.float32(f))) for n, f in zip(shape, factors))
    if len(out) != len(shape) or (factors is not None and len(factors) != len(shape)):
        raise Refusal(f"sizes or scales of {len(out)} axes for the input {shape_text(shape)}")
    return Resize(out, factors, mode, place, rounding)


def gemm_shape(graph: Graph, node: Node) -> tuple[int, int, int]:
    """Rows, inner extent and columns."""
    a, b = graph.shape(node, 0), graph.shape(node, 1)
    if len(a) != 2 or len(b) != 2:
        raise Refusal(f"{shape_text(a)} and {shape_text(b)} are not matrices")
    m, k = a[::-1] if node.integer("transA", 0) else a
    k2, n = b[::-1] if node.integer("transB", 0) else b
    if k != k2:
        raise Refusal(f"{shape_text(a)} and {shape_text(b)} do not fit each other")
    if node.has(2) and broadcast([(m, n), graph.shape(node, 2)]) != (m, n):
        raise Refusal(f"{shape_text(graph.shape(node, 2))} cannot be added to {shape_text((m, n))}")
    return m, k, n


def broadcast(shapes: list[Shape]) -> Shape:
    try:
        return tuple(np.broadcast_shapes(*shapes))
    except ValueError:
        texts = " and ".join(shape_text(s) for s in shapes)
        raise Refusal(f"{texts} do not fit each other") from None
