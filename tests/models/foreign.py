"""Graphs as other exporters than torch's write them, with seeded weights.

CASES: name, function that fills a Builder, shape of the input, opset.
"""

import numpy as np
import onnx
from onnx import helper, numpy_helper


class Builder:
    """An ONNX graph in the making; values are named by running numbers."""

    def __init__(self, shape, opset, seed):
        self.random = np.random.default_rng(seed)
        self.nodes, self.tensors, self.outputs, self.opset = [], [], [], opset
        self.shape = shape

    def weight(self, *shape, low=None, high=None):
        values = self.random.standard_normal(shape) * (2 / max(np.prod(shape[1:]), 1)) ** 0.5
        if low is not None:
            values = self.random.uniform(low, high, shape)
        return self.constant(values.astype(np.float32))

    def constant(self, values):
        name = f"w{len(self.tensors)}"
        self.tensors.append(numpy_helper.from_array(np.asarray(values), name))
        return name

    def op(self, kind, *inputs, outputs=1, **attributes):
        names = [f"v{len(self.nodes)}_{i}" for i in range(outputs)]
        name = f"n{len(self.nodes)}"
        self.nodes.append(helper.make_node(kind, inputs, names, name, **attributes))
        return names[0] if outputs == 1 else names

    def conv(self, x, inputs, outputs, kernel=3, bias=True, group=1, **attributes):
        weights = [self.weight(outputs, inputs // group, kernel, kernel)]
        weights += [self.weight(outputs, low=-0.2, high=0.2)] if bias else []
        return self.op("Conv", x, *weights, group=group, kernel_shape=[kernel] * 2, **attributes)

    def norm(self, x, channels, **attributes):
        parts = [self.weight(channels, low=a, high=b) for a, b in
                 ((0.6, 1.4), (-0.2, 0.2), (-0.2, 0.2), (0.6, 1.4))]
        return self.op("BatchNormalization", x, *parts, **attributes)

    def model(self):
        graph = helper.make_graph(
            self.nodes, "net",
            [helper.make_tensor_value_info("image", 1, self.shape)],
            [helper.make_tensor_value_info(name, 1, None) for name in self.outputs], self.tensors)
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", self.opset)])
        model.ir_version = 7
        return onnx.shape_inference.infer_shapes(model)


def channels_last(g, x):
    """Pictures come [rows, columns, channels]; SAME padding, biases as sums, means of space."""
    x = g.op("Transpose", x, perm=[0, 3, 1, 2])
    x = g.op("Sub", g.op("Div", x, g.constant(np.float32(127.5))), g.constant(np.float32(1)))
    x = g.conv(x, 3, 16, bias=False, auto_pad="SAME_UPPER", strides=[2, 2])
    x = g.op("Add", x, g.weight(1, 16, 1, 1))
    x = g.op("Clip", x, g.constant(np.float32(0)), g.constant(np.float32(6)))
    x = g.op("Pad", x, g.constant(np.int64([0, 0, 0, 0, 0, 0, 1, 1])))
    x = g.norm(g.conv(x, 16, 16, bias=False, group=16, strides=[2, 2], auto_pad="VALID"), 16)
    x = g.op("Relu", x)
    y = g.op("AveragePool", x, kernel_shape=[3, 3], strides=[1, 1], auto_pad="SAME_UPPER")
    x = g.op("Concat", x, y, axis=1)
    z = g.op("MaxPool", x, kernel_shape=[2, 2], strides=[2, 2], auto_pad="SAME_UPPER")
    z = g.op("Resize", z, g.constant(np.float32([])), g.constant(np.float32([])),
             g.constant(np.int64([1, 32, 16, 16])), mode="linear",
             coordinate_transformation_mode="asymmetric")
    x = g.op("Add", x, z)
    heads = g.op("Transpose", g.conv(x, 32, 8, 1), perm=[0, 2, 3, 1])
    heads = g.op("Reshape", heads, g.constant(np.int64([-1, 512, 4])))
    g.outputs.append(g.op("Softmax", heads, axis=-1))
    mean = g.op("ReduceMean", x, axes=[2, 3], keepdims=1)
    mean = g.op("Squeeze", mean, g.constant(np.int64([2, 3])))
    x = g.op("MatMul", mean, g.weight(32, 10))
    g.outputs.append(g.op("Add", x, g.weight(10)))


def normalisation_inside(g, x):
    """Scalars of shape [1] around the input, slopes [channels, 1, 1], a dense layer by a cut
    shape, normalisation of a vector."""
    x = g.op("Sub", x, g.constant(np.float32([127.5])))
    x = g.op("Mul", x, g.constant(np.float32([1 / 128])))
    x = g.norm(g.conv(x, 3, 16, bias=False, pads=[1] * 4), 16, epsilon=2e-5, momentum=0.9)
    x = g.op("PRelu", x, g.weight(16, 1, 1, low=0, high=0.5))
    y = g.norm(x, 16, epsilon=2e-5)
    y = g.conv(y, 16, 16, bias=False, pads=[1] * 4)
    y = g.op("PRelu", y, g.weight(16, 1, 1, low=0, high=0.5))
    y = g.norm(g.conv(y, 16, 24, bias=False, pads=[1] * 4, strides=[2, 2]), 24)
    x = g.op("Add", y, g.norm(g.conv(x, 16, 24, 1, bias=False, strides=[2, 2]), 24))
    x = g.op("Dropout", g.norm(x, 24), ratio=0.4) if g.opset < 12 else g.norm(x, 24)
    x = g.op("Reshape", x, g.constant(np.int64([0, -1])))
    x = g.op("Gemm", x, g.weight(32, 24 * 36), g.weight(32), alpha=1.0, beta=1.0, transB=1)
    x = g.norm(x, 32, epsilon=2e-5)
    g.outputs.append(g.op("Div", x, g.op("ReduceL2", x, axes=[1], keepdims=1)))


def folded_scales(g, x):
    """Normalisation split into products and sums of vectors that are made wide first."""
    def scaled(x, channels):
        def wide(low, high):
            v = g.weight(channels, low=low, high=high)
            return g.op("Unsqueeze", v, axes=[1, 2]) if g.opset < 13 else \
                g.op("Unsqueeze", v, g.constant(np.int64([1, 2])))
        return g.op("Relu", g.op("Add", g.op("Mul", x, wide(0.6, 1.4)), wide(-0.2, 0.2)))
    x = scaled(g.conv(x, 3, 12, 7, pads=[3] * 4, strides=[2, 2]), 12)
    x = g.op("MaxPool", x, kernel_shape=[3, 3], strides=[2, 2], pads=[0, 0, 1, 1])
    x = g.op("LRN", x, size=5, alpha=1e-3, beta=0.75, bias=1.0)
    y = scaled(g.conv(x, 12, 12, group=2, pads=[1] * 4), 12)
    x = g.op("Concat", x, y, g.op("Relu", g.conv(x, 12, 6, 5, pads=[2] * 4)), axis=1)
    x = g.op("AveragePool", x, kernel_shape=[2, 2], strides=[2, 2], pads=[0, 0, 1, 1])
    x = g.op("GlobalAveragePool", scaled(x, 30))
    x = g.op("Flatten", g.conv(x, 30, 7, 1))
    g.outputs.append(g.op("Softmax", x))


def shape_arithmetic(g, x):
    """Shapes are computed from the input's, with casts, divisions and slices; the batch has a
    name. Gates by HardSigmoid, sums by axes."""
    def one(i, of):
        return g.op("Unsqueeze", g.op("Gather", g.op("Shape", of), g.constant(np.int64(i)), axis=0),
                    g.constant(np.int64([0])))
    x = g.op("HardSwish", g.norm(g.conv(x, 3, 16, bias=False, pads=[1] * 4, strides=[2, 2]), 16))
    gate = g.op("Relu", g.conv(g.op("GlobalAveragePool", x), 16, 4, 1))
    gate = g.op("HardSigmoid", g.conv(gate, 4, 16, 1), alpha=0.2, beta=0.5)
    x = g.op("Mul", x, gate)
    top = g.op("Slice", g.op("Shape", x), g.constant(np.int64([2])), g.constant(np.int64([4])))
    low = g.conv(x, 16, 16, pads=[1] * 4, strides=[2, 2])
    size = g.op("Concat", g.op("Slice", g.op("Shape", x), g.constant(np.int64([0])),
                               g.constant(np.int64([2]))), top, axis=0)
    low = g.op("Resize", low, "", "", size, mode="nearest", nearest_mode="floor",
               coordinate_transformation_mode="asymmetric")
    x = g.op("Add", x, low)
    count = g.op("Mul", one(2, x), one(3, x))
    target = g.op("Concat", one(0, x), g.constant(np.int64([16])), count, axis=0)
    x = g.op("Transpose", g.op("Reshape", x, target), perm=[0, 2, 1])
    x = g.op("Split", x, g.constant(np.int64([4, 12])), axis=2, outputs=2)
    g.outputs.append(g.op("Sigmoid", x[0]))
    half = g.op("Div", g.op("Cast", count, to=1), g.constant(np.float32(2)))
    x = g.op("Exp", g.op("Clip", x[1], "", g.constant(np.float32(2))))
    g.outputs.append(g.op("Mul", x, half))


def pixel_blocks(g, x):
    """Blocks of pixels through six axes, and the operators for it in both orders."""
    x = g.op("Relu", g.conv(x, 3, 16, pads=[1] * 4))
    y = g.op("Reshape", x, g.constant(np.int64([-1, 4, 2, 2, 12, 16])))
    y = g.op("Transpose", y, perm=[0, 1, 4, 2, 5, 3])
    y = g.op("Reshape", y, g.constant(np.int64([-1, 4, 24, 32])))
    z = g.op("DepthToSpace", x, blocksize=2, mode="DCR")
    y = g.op("Add", y, g.op("Add", z, g.op("DepthToSpace", x, blocksize=2, mode="CRD")))
    g.outputs.append(g.op("SpaceToDepth", g.op("Tanh", y), blocksize=2))


def old_detector(g, x):
    """Scale and shift of bytes, slopes of 0.1, SAME pooling without a stride, Upsample."""
    x = g.op("Mul", x, g.constant(np.float32([1 / 255])))
    x = g.op("Add", x, g.constant(np.float32([[[0.1]], [[0.2]], [[0]]])))
    for a, b, stride in ((3, 16, 2), (16, 24, 2), (24, 32, 1)):
        x = g.norm(g.conv(x, a, b, bias=False, auto_pad="SAME_UPPER"), b)
        x = g.op("MaxPool", g.op("LeakyRelu", x, alpha=0.1), kernel_shape=[2, 2],
                 strides=[stride] * 2, auto_pad="SAME_UPPER")
    y = g.op("MaxPool", x, kernel_shape=[2, 2], strides=[2, 2])
    y = g.op("Upsample", y, g.constant(np.float32([1, 1, 2, 2])), mode="nearest")
    g.outputs.append(g.conv(g.op("Concat", x, y, axis=1), 64, 30, 1))


def batch_in_front(g, x):
    """Heads that put the batch axis behind the places, as some detectors do."""
    x = g.op("Relu", g.conv(x, 3, 16, pads=[1] * 4, strides=[2, 2]))
    score = g.op("Transpose", g.conv(x, 16, 4, pads=[1] * 4), perm=[2, 3, 0, 1])
    g.outputs.append(g.op("Sigmoid", g.op("Reshape", score, g.constant(np.int64([-1, 2])))))
    box = g.op("Mul", g.conv(x, 16, 8, pads=[1] * 4), g.constant(np.float32(0.83)))
    box = g.op("Transpose", box, perm=[2, 3, 0, 1])
    g.outputs.append(g.op("Reshape", box, g.constant(np.int64([-1, 4]))))


CASES = [
    ("channels-last", channels_last, (1, 64, 64, 3), 13),
    ("normalisation-inside", normalisation_inside, (1, 3, 12, 12), 9),
    ("folded-scales", folded_scales, (1, 3, 48, 48), 9),
    ("shape-arithmetic", shape_arithmetic, ("batch", 3, 24, 32), 14),
    ("pixel-blocks", pixel_blocks, (1, 3, 12, 16), 13),
    ("old-detector", old_detector, (1, 3, 32, 48), 9),
    ("batch-in-front", batch_in_front, (1, 3, 16, 24), 11),
]
