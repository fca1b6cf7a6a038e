"""Small ONNX models, an operator family each, converted and run against the evaluator; files
that cannot be converted say why and leave nothing behind."""

import contextlib
import io
import os
import tempfile
import unittest

import numpy as np

try:
    import onnx
    from onnx import TensorProto, helper, numpy_helper

    import zyncore
    from zyncore.compare import compare
    from zyncore.convert.__main__ import main
    from zyncore.evaluate import evaluate
except ImportError as missing:
    raise unittest.SkipTest(str(missing))

MODELS = os.environ.get("ZYN_MODEL_DIR", "")
RNG = np.random.default_rng(11)


def w(*shape, scale=1.0, shift=0.0):
    return (scale * RNG.standard_normal(shape) + shift).astype("f4")


def i(*values):
    return np.array(values, "i8")


def f(value):
    return np.array(value, "f4")


class Model:
    """n.Op(inputs, attribute=...) adds a node and gives the name of its result; arrays become
    weights. outs=2 gives two names."""

    def __init__(self, opset, shapes):
        self.opset, self.nodes, self.tensors = opset, [], []
        self.inputs = [helper.make_tensor_value_info(f"in{k}", TensorProto.FLOAT, s)
                       for k, s in enumerate(shapes)]

    def __getattr__(self, op):
        def add(*inputs, outs=1, **attributes):
            names = []
            for value in inputs:
                if isinstance(value, np.ndarray):
                    name = f"w{len(self.tensors)}"
                    self.tensors.append(numpy_helper.from_array(value, name))
                    value = name
                names.append(value)
            results = [f"{op}{len(self.nodes)}_{k}" for k in range(outs)]
            self.nodes.append(helper.make_node(op, names, results, name=results[0], **attributes))
            return results[0] if outs == 1 else results
        return add

    def proto(self, outputs):
        outputs = [outputs] if isinstance(outputs, str) else outputs
        infos = [helper.make_tensor_value_info(name, TensorProto.FLOAT, None) for name in outputs]
        graph = helper.make_graph(self.nodes, "g", self.inputs, infos, self.tensors)
        return helper.make_model(graph, opset_imports=[helper.make_opsetid("", self.opset)])


def model(shapes, build, opset=13):
    if isinstance(shapes[0], int):
        shapes = [shapes]
    n = Model(opset, shapes)
    return n.proto(build(n, *(f"in{k}" for k in range(len(shapes)))))


IMAGE = (1, 6, 9, 12)
ROWS = (1, 5, 8)


def norm(n, x, c=6):
    return n.BatchNormalization(x, w(c), w(c), w(c), abs(w(c)) + 0.5, epsilon=0.01)


def residual(n, x):
    a = n.Relu(norm(n, n.Conv(x, w(6, 6, 3, 3), pads=[1] * 4)))
    b = norm(n, n.Conv(a, w(6, 6, 3, 3), pads=[1] * 4))
    return n.Relu(n.Add(b, x))


def squeeze_excite(n, x):
    s = n.Relu(n.Conv(n.GlobalAveragePool(x), w(3, 6, 1, 1), w(3)))
    return n.Mul(x, n.HardSigmoid(n.Conv(s, w(6, 3, 1, 1), w(6)), alpha=1 / 6))


def read_twice(n, x):
    a = n.Conv(x, w(4, 6, 1, 1), w(4))
    return [n.Relu(a), n.Sigmoid(a), n.HardSwish(a), n.Add(a, n.Relu(a))]


def head(n, x):
    y = n.Transpose(n.Conv(x, w(8, 6, 1, 1), w(8)), perm=[0, 2, 3, 1])
    extents = n.Concat(n.Unsqueeze(n.Gather(n.Shape(y), f(0).astype("i8"), axis=0), i(0)), i(-1),
                       i(4), axis=0)
    boxes = n.Reshape(y, extents)
    centre = n.Add(n.Mul(n.Slice(boxes, i(0), i(2), i(2)), f([[[0.1, 0.2]]])), w(1, 216, 2))
    size = n.Mul(n.Exp(n.Slice(boxes, i(2), i(9), i(2))), w(216, 2))
    return n.Concat(n.Sub(centre, n.Div(size, f(2))), n.Add(centre, size), axis=-1)


def attention(n, x):
    y = n.MatMul(n.Reshape(x, i(1, 6, 108)), w(108, 24, scale=0.1))
    q, k, v = (n.Transpose(n.Reshape(n.Add(n.MatMul(y, w(24, 24, scale=0.3)), w(24)), i(
        1, 6, 3, 8)), perm=[0, 2, 1, 3]) for _ in range(3))
    s = n.Softmax(n.Div(n.MatMul(q, n.Transpose(k, perm=[0, 1, 3, 2])), f(2.8)), axis=-1)
    y = n.Reshape(n.Transpose(n.MatMul(s, v), perm=[0, 2, 1, 3]), i(1, 6, 24))
    return n.LayerNormalization(y, w(24), w(24), axis=-1)


def l2(n, x):
    norm = n.Clip(n.ReduceL2(x, axes=[1], keepdims=1), f(1e-12))
    return n.Div(x, n.Expand(norm, n.Shape(x)))


def gelu_tanh(n, x):
    cube = n.Mul(f(0.044715), n.Mul(x, n.Mul(x, x)))
    inside = n.Tanh(n.Mul(f(0.7978846), n.Add(x, cube)))
    return n.Mul(n.Mul(f(0.5), x), n.Add(f(1), inside))


def branch(values):
    return helper.make_graph([helper.make_node("Relu", ["in0"], [f"inner{values}"])], "b", [], [
        helper.make_tensor_value_info(f"inner{values}", TensorProto.FLOAT, None)])


# Label, shape of the input or shapes of several, what is built, opsets.
CASES = [
    ("dense", IMAGE, lambda n, x: n.Conv(x, w(5, 6, 3, 2), w(5), pads=[1, 0, 1, 0],
                                         strides=[2, 1], dilations=[1, 2]), (9, 13, 17)),
    ("depthwise", IMAGE, lambda n, x: n.HardSwish(n.Conv(
        n.Conv(x, w(6, 1, 5, 5), pads=[2] * 4, strides=[2, 2], group=6), w(6, 1, 5, 6), w(6),
        group=6)), (14,)),
    ("groups", IMAGE, lambda n, x: n.Relu(n.Conv(x, w(9, 2, 3, 3), w(9), group=3)), (13,)),
    ("uneven pads", IMAGE, lambda n, x: n.Relu(n.Conv(x, w(4, 6, 3, 3), w(4), pads=[0, 1, 2, 0])),
     (13,)),
    ("same", IMAGE, lambda n, x: n.Conv(n.Conv(x, w(4, 6, 3, 3), auto_pad="SAME_UPPER", strides=[
        2, 2]), w(4, 4, 2, 2), auto_pad="SAME_LOWER"), (13,)),
    ("sequence", (1, 3, 20), lambda n, x: n.MaxPool(n.Relu(norm(n, n.Conv(x, w(6, 3, 3), pads=[
        1, 0], strides=[2]))), kernel_shape=[2]), (13,)),
    ("pad before", IMAGE, lambda n, x: n.Conv(n.Pad(x, i(0, 0, 1, 2, 0, 0, 1, 2)), w(4, 6, 3, 3)),
     (13,)),
    ("pads", IMAGE, lambda n, x: [n.Pad(x, i(0, 1, 2, 0, 0, 0, 1, 3), f(2.5)), n.Pad(x, i(
        0, 0, 2, 1, 0, 0, 1, 3), mode="reflect"), n.Pad(x, i(0, 0, -1, 1, 0, 0, 1, -2),
                                                        mode="edge")], (13,)),
    ("old pad", IMAGE, lambda n, x: n.Conv(n.Pad(x, pads=[0, 0, 1, 1, 0, 0, 1, 1], value=0.0),
                                           w(4, 6, 3, 3)), (9,)),
    ("transposed", IMAGE, lambda n, x: norm(n, n.ConvTranspose(x, w(6, 2, 3, 4), w(6), group=3,
                                                               strides=[2, 3], pads=[1, 0, 1, 2])),
     (13,)),
    ("transposed, more out", IMAGE, lambda n, x: n.Relu(n.ConvTranspose(
        x, w(6, 4, 3, 3), w(4), strides=[2, 2], pads=[1] * 4, output_padding=[1, 1])), (11,)),
    ("transposed, beyond", IMAGE, lambda n, x: norm(n, n.ConvTranspose(
        x, w(6, 4, 2, 2), w(4), strides=[3, 3], output_padding=[2, 1]), 4), (13,)),
    ("transposed, same", IMAGE, lambda n, x: n.ConvTranspose(
        n.ConvTranspose(n.ConvTranspose(x, w(6, 6, 3, 3), strides=[2, 2], auto_pad="SAME_UPPER"), w(
            6, 6, 2, 3), strides=[3, 2], auto_pad="SAME_LOWER"), w(6, 4, 3, 3), strides=[2, 2],
        output_shape=[108, 95]), (13,)),
    ("normalisation", IMAGE, lambda n, x: norm(n, n.Relu(norm(n, n.Conv(norm(n, x), w(
        6, 6, 1, 1), w(6))))), (9, 15)),
    ("shift into padding", IMAGE, lambda n, x: n.Conv(norm(n, x), w(4, 6, 3, 3), pads=[1] * 4),
     (13,)),
    ("factors into groups", IMAGE, lambda n, x: n.Conv(norm(n, n.Mul(x, w(6, 1, 1))), w(
        4, 3, 3, 3), group=2), (13,)),
    ("constants around", IMAGE, lambda n, x: n.Div(n.Sub(n.Mul(n.Add(n.Conv(x, w(4, 6, 1, 1)), w(
        4, 1, 1)), w(1, 4, 1, 1)), f(3)), f([[[2.0]], [[4.0]], [[-1.0]], [[0.5]]])), (13,)),
    ("constants first", IMAGE, lambda n, x: [n.Sub(f(1), x), n.Div(w(6, 1, 1), n.Exp(x)), n.Pow(
        n.Abs(x), f(1.7)), n.Max(x, f(0.3)), n.Min(w(9, 12), x), n.Pow(f(2), x)], (13,)),
    ("along rows and columns", IMAGE, lambda n, x: [n.Mul(n.Add(x, w(12)), w(9, 1)), n.Sub(x, w(
        1, 6, 9, 12))], (13,)),
    ("activations", IMAGE, lambda n, x: [
        n.Relu(x), n.LeakyRelu(x, alpha=0.2), n.Elu(x, alpha=0.7), n.Selu(x), n.Celu(x, alpha=0.6),
        n.Sigmoid(x), n.Tanh(x), n.Softplus(x), n.Softsign(x), n.HardSigmoid(x, alpha=0.3),
        n.HardSwish(x), n.Clip(x, f(-0.5), f(1)), n.Clip(x, "", f(0.5)), n.Erf(x), n.Exp(x),
        n.Log(n.Abs(x)), n.Sqrt(n.Abs(x)), n.Reciprocal(n.Add(n.Abs(x), f(1))), n.Neg(x),
        n.PRelu(x, w(6, 1, 1)), n.PRelu(x, f(0.3)), n.PRelu(x, w(9, 1))], (14,)),
    ("old clip", IMAGE, lambda n, x: n.Clip(n.Conv(x, w(4, 6, 1, 1)), min=0.0, max=6.0), (9,)),
    ("read twice", IMAGE, read_twice, (14,)),
    ("residual", IMAGE, residual, (13,)),
    ("squeeze and excite", IMAGE, squeeze_excite, (13,)),
    ("hard-swish", IMAGE, lambda n, x: [
        n.Mul(x, n.HardSigmoid(x, alpha=1 / 6)), n.Div(n.Mul(x, n.Clip(n.Add(x, f(3)), f(0), f(
            6))), f(6)), n.Mul(n.Mul(n.Min(n.Max(n.Add(f(3), x), f(0)), f(6)), f(1 / 6)), x)],
     (13,)),
    ("hard-sigmoid", IMAGE, lambda n, x: n.Div(n.Clip(n.Add(x, f(3)), f(0), f(6)), f(6)), (13,)),
    ("swish, mish", IMAGE, lambda n, x: [n.Mul(n.Sigmoid(x), x), n.Mul(x, n.Tanh(n.Log(n.Add(n.Exp(
        x), f(1)))))], (13,)),
    ("gelu", IMAGE, lambda n, x: [n.Mul(n.Mul(x, n.Add(n.Erf(n.Div(x, f(2 ** 0.5))), f(1))), f(
        0.5)), gelu_tanh(n, x)], (13,)),
    ("nearly hard-swish", IMAGE, lambda n, x: n.Div(n.Mul(x, n.Clip(n.Add(x, f(3)), f(0), f(5.9))),
                                                    f(6)), (13,)),
    ("norms", IMAGE, lambda n, x: [l2(n, x), n.LpNormalization(x, axis=1), n.LpNormalization(
        x, axis=3, p=1), n.InstanceNormalization(x, w(6), w(6)), n.LRN(
            x, size=3, alpha=0.5, beta=0.6)],
     (13,)),
    ("local maxima", IMAGE, lambda n, x: [
        n.Mul(x, n.Cast(n.Equal(x, n.MaxPool(x, kernel_shape=[3, 3], pads=[1] * 4)), to=1)),
        n.Where(n.Or(n.Greater(x, f(0.5)), n.Not(n.GreaterOrEqual(x, w(6, 1, 1)))), x, f(-7)),
        n.Cast(n.Sub(n.Cast(n.Greater(x, f(0)), to=7), n.Cast(n.Cast(n.Less(x, f(0)), to=9), to=7)),
               to=1),
        n.Cast(n.And(n.Less(x, w(12)), n.LessOrEqual(f(-1), x)), to=1)], (13,)),
    ("softmax", IMAGE, lambda n, x: [n.Softmax(x, axis=1), n.LogSoftmax(x, axis=3), n.Softmax(
        n.Flatten(x))], (9, 13)),
    ("max pooling", IMAGE, lambda n, x: [
        n.MaxPool(x, kernel_shape=[2, 2], strides=[2, 2]),
        n.MaxPool(x, kernel_shape=[3, 3], strides=[2, 2], ceil_mode=1),
        n.MaxPool(x, kernel_shape=[3, 2], pads=[1, 0, 1, 1], dilations=[2, 1]),
        n.MaxPool(x, kernel_shape=[2, 3], strides=[3, 3], auto_pad="SAME_UPPER"),
        n.GlobalMaxPool(x)], (12,)),
    ("average pooling", IMAGE, lambda n, x: [
        n.AveragePool(x, kernel_shape=[3, 3], strides=[3, 3]),
        n.AveragePool(x, kernel_shape=[2, 3], strides=[2, 2], pads=[1, 1, 0, 1]),
        n.AveragePool(x, kernel_shape=[3, 3], strides=[2, 2], pads=[1] * 4, count_include_pad=1),
        n.GlobalAveragePool(x)], (9, 13)),
    ("average pooling, last windows", (1, 6, 9, 11), lambda n, x: [n.AveragePool(
        x, kernel_shape=[3, 3], strides=[2, 3], pads=[1] * 4, ceil_mode=1, count_include_pad=c)
        for c in (0, 1)], (13,)),
    ("reductions", IMAGE, lambda n, x: [
        n.ReduceMean(x, axes=[2, 3]), n.ReduceMean(x, axes=[-1], keepdims=0),
        n.ReduceMax(x, axes=[1, 3]), n.ReduceMin(x, axes=[1]), n.ReduceL2(x, axes=[3]),
        n.ReduceL1(x, axes=[2]), n.ReduceSumSquare(x, axes=[1, 2, 3]), n.ReduceMean(x)], (11, 13)),
    ("dense layers", IMAGE, lambda n, x: n.Gemm(n.Relu(norm(n, n.Gemm(n.Flatten(x), w(
        10, 648, scale=0.1), w(10), transB=1), 10)), w(10, 4), f(0.5), alpha=0.5, beta=2.0), (13,)),
    ("rows of gemm", (5, 8), lambda n, x: [n.Gemm(x, w(8, 3), w(3)), n.Gemm(x, w(5, 3), w(
        8, 3), transA=1), n.Gemm(x, x, transB=1)], (13,)),
    ("products", [ROWS, (1, 8, 4), (2, 3, 5)], lambda n, a, b, c: [
        n.MatMul(a, b), n.Add(n.MatMul(a, w(8, 6)), w(6)), n.MatMul(c, a), n.MatMul(w(2, 5), a),
        n.MatMul(c, w(5))], (13,)),
    ("attention", IMAGE, attention, (17,)),
    ("joins", [IMAGE, (1, 6, 1, 1), (9, 1), (1, 1, 9, 12)], lambda n, a, b, c, d: [
        n.Add(b, a), n.Mul(b, a), n.Sub(b, a), n.Div(a, n.Exp(c)), n.Max(a, d, c), n.Mul(c, d),
        n.Sum(a, b, c), n.Mean(a, d), n.Add(a, a), n.Mul(a, a), n.Sub(a, a)], (13,)),
    ("head", IMAGE, head, (13,)),
    ("shapes", IMAGE, lambda n, x: [
        n.Squeeze(n.GlobalAveragePool(x), i(2, 3)), n.Unsqueeze(n.Flatten(x, axis=2), i(0)),
        n.Reshape(x, i(0, 2, -1, 9, 12)), n.Transpose(x, perm=[0, 3, 1, 2]), n.Transpose(
            x, perm=[2, 0, 1, 3]), n.Expand(x, i(2, 1, 1, 1, 1)), n.Tile(x, i(1, 2, 1, 3))],
     (13,)),
    ("shuffle", IMAGE, lambda n, x: n.Reshape(n.Transpose(n.Reshape(x, i(1, 2, 3, 9, 12)), perm=[
        0, 2, 1, 3, 4]), i(1, 6, 9, 12)), (13,)),
    ("depth and space", (1, 8, 6, 4), lambda n, x: [
        n.DepthToSpace(x, blocksize=2), n.DepthToSpace(x, blocksize=2, mode="CRD"),
        n.SpaceToDepth(x, blocksize=2)], (13,)),
    ("concat", [IMAGE, (1, 2, 9, 12), (1, 6, 9, 3)], lambda n, a, b, c: [
        n.Concat(a, b, axis=1), n.Concat(a, c, a, axis=-1), n.Concat(a, a, axis=0),
        n.Concat(b, w(1, 2, 9, 12), axis=1)], (13,)),
    ("parts", IMAGE, lambda n, x: [
        *n.Split(x, i(1, 3, 2), axis=1, outs=3), *n.Split(x, axis=3, outs=2),
        n.Slice(x, i(1, -1), i(100, -100), i(1, 3), i(2, -3)), n.Gather(x, i(4), axis=1),
        n.Gather(x, f(2).astype("i8"), axis=2), n.Gather(x, i(5, 0, 0, 3), axis=1),
        n.Gather(x, i(3, 1, 2), axis=3),
        n.Gather(x, i(5, 4, 2, 2, 0, 3), axis=1), n.Gather(x, i(7, 1, 8, 3, 3, 0), axis=2)], (13,)),
    ("by index", IMAGE, lambda n, x: [
        n.GatherND(x, np.array([[[0, 5, 8], [0, -1, 2]]])), n.GatherElements(x, np.array(
            [[[[3, 0], [11, -1]]]]), axis=3), n.ArgMax(x, axis=1), n.ArgMin(x, axis=-1, keepdims=0),
        n.ScatterND(x, np.array([[0, 2, 3], [0, 1, 8]]), w(2, 12)),
        n.ScatterND(x, np.stack(np.meshgrid([0], range(6), range(9), [7, 2, 3], indexing="ij"),
                                -1), n.Sigmoid(n.Slice(x, i(2), i(5), i(3)))),
        n.ScatterND(w(1, 6, 9, 12), np.array([[[0, 4], [0, 1]]]), n.Slice(x, i(0), i(2), i(1)))],
     (13,)),
    ("old parts", IMAGE, lambda n, x: [n.Slice(x, starts=[1], ends=[4], axes=[1]), *n.Split(
        x, split=[4, 2], axis=1, outs=2), n.Squeeze(n.ReduceMean(x, axes=[2, 3]), axes=[2])], (9,)),
    ("resize", IMAGE, lambda n, x: [
        n.Resize(x, "", f([1, 1, 2, 2])),
        n.Resize(x, "", f([1, 1, 2, 3]), coordinate_transformation_mode="asymmetric",
                 nearest_mode="floor"),
        n.Resize(x, "", f([1, 1, 1.5, 0.7]), mode="linear"),
        n.Resize(x, "", "", i(1, 6, 5, 25), mode="linear",
                 coordinate_transformation_mode="align_corners"),
        n.Resize(x, "", "", i(1, 6, 20, 7), nearest_mode="round_prefer_ceil",
                 coordinate_transformation_mode="pytorch_half_pixel")], (13,)),
    ("upsample", IMAGE, lambda n, x: [n.Upsample(x, f([1, 1, 2, 2])), n.Upsample(x, f([
        1, 1, 2, 3]), mode="linear")], (9,)),
    ("branches", IMAGE, lambda n, x: n.If(n.Equal(n.Size(x), i(648)), then_branch=branch(1),
                                          else_branch=branch(2)), (13,)),
    ("shape alone", [IMAGE, (1, 1, 18, 24)], lambda n, a, b: n.Resize(a, "", "", n.Concat(n.Slice(
        n.Shape(a), i(0), i(2)), n.Slice(n.Shape(b), i(2), i(4)), axis=0)), (13,)),
    ("nothing to do", IMAGE, lambda n, x: n.Dropout(n.Dropout(n.Identity(x)), outs=2)[0],
     (13,)),
    ("twice the same", IMAGE, lambda n, x: (lambda y: [y, n.Identity(y), n.Relu(y)])(n.Sigmoid(
        n.Exp(x))), (13,)),
    ("constants alone", IMAGE, lambda n, x: [n.Add(x, n.Sqrt(n.ConstantOfShape(i(12), value=(
        helper.make_tensor("v", TensorProto.FLOAT, [1], [4.0]))))), n.Mul(n.Range(f(0), f(12), f(
            1)), f(2))], (13,)),
]


# What is left of cases that are folded.
FOLDED = {
    "pad before": "1 CONV_ACT", "factors into groups": "1 CONV_GROUPED",
    "constants around": "1 CONV_ACT", "residual": "2 CONV_ACT, 1 ADD, 1 RELU",
    "normalisation": "1 CONV_ACT, 1 BATCH_NORM_FAST", "hard-swish": "3 FUNCTION",
    "swish, mish": "2 FUNCTION", "gelu": "2 FUNCTION", "old clip": "1 CONV_ACT, 1 RELU6",
    "dense layers": "2 LINEAR, 1 RESHAPE, 1 RELU", "depthwise": "2 CONV_ACT",
    "transposed": "1 CONV_TRANSPOSED, 1 CHANNEL_GATHER", "branches": "1 FUNCTION",
}


def run(*arguments):
    """Exit code and what the command said."""
    said = io.StringIO()
    with contextlib.redirect_stdout(said), contextlib.redirect_stderr(said):
        try:
            code = main([str(a) for a in arguments])
        except SystemExit as stop:
            code = stop.code
    return code, said.getvalue()


class Folder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.source = os.path.join(folder.name, "net.onnx")
        self.target = os.path.join(folder.name, "net.zyn")

    def save(self, proto):
        with open(self.source, "wb") as file:
            file.write(proto if isinstance(proto, bytes) else proto.SerializeToString())

    def convert(self, *options):
        code, said = run(self.source, "-o", self.target, *options)
        self.assertEqual(code, 0, said)
        return said


class ConvertTest(Folder):
    def close(self, got, wanted):
        self.assertEqual(set(got), set(wanted))
        for name, values in wanted.items():
            self.assertEqual(got[name].shape, values.shape or (1,), name)
            np.testing.assert_allclose(got[name], values.reshape(got[name].shape), rtol=2e-5,
                                       atol=2e-5 * max(1, np.abs(values).max()), err_msg=name)

    def test_operators(self):
        for label, shapes, build, opsets in CASES:
            for opset in opsets:
                with self.subTest(label, opset=opset):
                    self.check_operator(label, model(shapes, build, opset))

    def check_operator(self, label, proto):
        self.save(proto)
        inputs = {v.name: w(*(d.dim_value for d in v.type.tensor_type.shape.dim))
                  for v in proto.graph.input}
        values = evaluate(proto, inputs)
        wanted = {v.name: values[v.name] for v in proto.graph.output}
        for options in (["--no-fold"], []):
            said = self.convert(*options)
            for method in ("automatic", 0, 1, 2):
                net = zyncore.Net(self.target, method=method)
                self.close(net.run({name: inputs[name] for name in net.inputs}), wanted)
        if label in FOLDED:
            self.assertIn(f"operators: {FOLDED[label]}\n", said)
        report = compare(self.source, self.target, inputs)
        self.assertTrue(report.ok, "\n".join(report.lines()))

    def test_what_is_said_about_ports(self):
        self.save(with_input(TensorProto.FLOAT, "batch", 3, "h", "w", channels=3))
        self.convert("--input-shape", "1,3,9,12", "--mean", "127,128,129", "--scale", "0.5",
                     "--swap-channels", "--resize", "border", "--meaning", "Relu1_0=features",
                     "--metadata", "licence=MIT", "--check")
        net = zyncore.Net(self.target)
        image, out = net.inputs["in0"], net.outputs["Relu1_0"]
        self.assertEqual((image.shape, image.mean, image.scale), (
            (1, 3, 9, 12), (127, 128, 129), (0.5,) * 3))
        self.assertEqual((image.channel_order, image.resize, out.meaning), (
            zyncore.ChannelOrder.BGR, zyncore.ResizeRule.BORDER, zyncore.Meaning.FEATURES))
        self.assertEqual((net.metadata["licence"], net.metadata["converter"]),
                         ("MIT", "zyn-convert"))
        self.assertIn("net.onnx, opset 13", net.metadata["origin"])

    @unittest.skipUnless(os.path.exists(f"{MODELS}/ssd320.onnx"), "no ZYN_MODEL_DIR")
    def test_trained_detector(self):
        self.source = f"{MODELS}/ssd320.onnx"
        self.convert("--mean", "127", "--scale", "0.0078125", "--resize", "border", "--meaning",
                     "scores=probabilities", "--meaning", "boxes=offsets", "--metadata",
                     "face.strides=8,16,32,64", "--metadata", "face.variances=0.1,0.2",
                     "--metadata", "face.min-sizes=10,16,24;32,48;64,96;128,192,256")
        for photo in ("photo_a", "photo_b"):
            image, logits, boxes = (np.fromfile(f"{MODELS}/{photo}.{kind}.f32", "<f4") for kind in (
                "input", "logits", "locations"))
            odds = np.exp(logits.reshape(-1, 2))
            for method in ("automatic", 0, 1, 2):
                out = zyncore.Net(self.target, method=method).run(image.reshape(3, 240, 320))
                np.testing.assert_allclose(out["boxes"].reshape(-1), boxes, atol=2e-4)
                np.testing.assert_allclose(out["scores"][0], odds / odds.sum(1, keepdims=True),
                                           atol=2e-4)
            with open(f"{MODELS}/{photo}.faces.txt") as file:
                known = [float(line.split()[4]) for line in file if line[0] != "#"]
            faces = zyncore.Detector(self.target)(zyncore.read_bmp(f"{MODELS}/{photo}.bmp"))
            np.testing.assert_allclose(faces[:, 4], known, atol=0.02)


GOOD = model(IMAGE, lambda n, x: n.Relu(n.Conv(x, w(4, 6, 3, 3), w(4))))


def spoilt(change):
    proto = onnx.ModelProto()
    proto.CopyFrom(GOOD)
    change(proto)
    return proto


def set_weights(**fields):
    def change(proto):
        for name, value in fields.items():
            if isinstance(value, list):
                del getattr(proto.graph.initializer[0], name)[:]
                getattr(proto.graph.initializer[0], name).extend(value)
            else:
                setattr(proto.graph.initializer[0], name, value)
    return spoilt(change)


def outside(location):
    def change(proto):
        tensor = proto.graph.initializer[0]
        tensor.data_location = TensorProto.EXTERNAL
        tensor.external_data.add(key="location", value=location)
    return spoilt(change)


def one(op, *inputs, shape=IMAGE, opset=13, outs=1, **attributes):
    return model(shape, lambda n, x: getattr(n, op)(x, *inputs, outs=outs, **attributes), opset)


def with_input(code, *dims, channels=6):
    proto = model((1, channels, 9, 12), lambda n, x: n.Relu(n.Conv(x, w(4, channels, 3, 3), w(4))))
    proto.graph.input[0].CopyFrom(helper.make_tensor_value_info("in0", code, dims))
    return proto


# Label, file, what is said; options of the command.
BAD = [
    ("empty", b"", "empty"),
    ("text", b"Dear sir or madam, please find attached no network at all.", "no ONNX"),
    ("half", GOOD.SerializeToString()[:400], "cut short"),
    ("zeros", bytes(1000), "no ONNX"),
    ("no graph", onnx.ModelProto(producer_name="x", ir_version=8), "neither nodes nor outputs"),
    ("old opset", spoilt(lambda p: setattr(p.opset_import[0], "version", 8)), "opset 8, 9 to 17"),
    ("new opset", spoilt(lambda p: setattr(p.opset_import[0], "version", 99)), "opset_version"),
    ("no opset", spoilt(lambda p: p.ClearField("opset_import")), "does not say which operator set"),
    ("functions", spoilt(lambda p: p.functions.add(name="f")), "functions of its own"),
    ("circle", spoilt(lambda p: p.graph.node[0].input.__setitem__(0, p.graph.output[0].name)),
     "circle"),
    ("made twice", spoilt(lambda p: p.graph.node.append(p.graph.node[0])), "made twice"),
    ("from nowhere", spoilt(lambda p: p.graph.node[0].input.__setitem__(0, "ghost")),
     "'ghost', which nothing makes"),
    ("no such output", spoilt(lambda p: setattr(p.graph.output[0], "name", "a\x1b[2Jb")),
     "output 'a?[2Jb'"),
    ("no outputs", spoilt(lambda p: p.graph.ClearField("output")), "no outputs"),
    ("no input", spoilt(lambda p: p.graph.ClearField("input")), "which nothing makes"),
    ("too many nodes", spoilt(lambda p: p.graph.node.extend([p.graph.node[0]] * 16385)),
     "at most 16384"),
    ("weights cut", set_weights(raw_data=b"1234"), "4 bytes for the shape (4, 6, 3, 3)"),
    ("weights of -4", set_weights(dims=[-4, 6, 3, 3]), "not possible"),
    ("endless weights", set_weights(dims=[2**40, 2**40]), "not possible"),
    ("weights of texts", set_weights(data_type=TensorProto.STRING), "element type 8"),
    ("sparse", spoilt(lambda p: p.graph.sparse_initializer.add()), "sparse"),
    ("weights outside", outside("../../../../etc/passwd"), "does not lie beside"),
    ("weights missing", outside("weights.bin"), "cannot be read"),
    ("whole numbers in", with_input(TensorProto.INT64, *IMAGE), "INT64"),
    ("unknown size", with_input(TensorProto.FLOAT, "n", 6, "h", "w"), "--input-shape in0=1,6,"),
    ("no shape", with_input(TensorProto.FLOAT), "not"),
    ("four images", with_input(TensorProto.FLOAT, 4, 6, 9, 12), "one image at a time"),
    ("addend too large", one("Gemm", w(8, 3), w(8, 3), shape=(1, 8)), "cannot be added"),
    ("slopes beside", one("PRelu", w(2, 6, 1, 1)), "slopes"),
    ("three halves", model(IMAGE, lambda n, x: n.Conv(x, w(4, 6, 1, 1), outs=2)), "1 are computed"),
    ("cut to whole numbers", model(IMAGE, lambda n, x: n.Cast(n.Cast(x, to=1), to=7)), "Cast"),
    ("no number", one("LeakyRelu", alpha=float("nan")), "not finite"),
    ("constants alone", model(IMAGE, lambda n, x: n.Cast(n.Shape(x), to=1)), "constants"),
    ("other channels", with_input(TensorProto.FLOAT, 1, 7, 9, 12), "7 channels"),
    ("too small", with_input(TensorProto.FLOAT, 1, 6, 2, 12), "kernel reaches over 3"),
    ("seven axes", with_input(TensorProto.FLOAT, 1, 2, 3, 1, 1, 9, 12), "7 axes"),
    ("huge input", with_input(TensorProto.FLOAT, 1, 6, 2**20, 2**20), "too large"),
    ("unknown operator", one("Frobnicate"), "Frobnicate 'Frobnicate0_0', inputs (1, 6, 9, 12)"),
    ("foreign operator", one("Act", domain="com.vendor"), "com.vendor.Act"),
    ("volume", one("Conv", w(4, 6, 3, 3, 3), shape=(1, 6, 9, 9, 9)), "one and two axes"),
    ("weights computed", model([IMAGE, (4, 6, 3, 3)], lambda n, x, y: n.Conv(x, y)),
     "computed while the network runs"),
    ("no stride", one("Conv", w(4, 6, 3, 3), strides=[0, 1]), "at least 1"),
    ("strides of fractions", one("Conv", w(4, 6, 3, 3), strides=[1.0, 1.0]), "whole numbers"),
    ("one pad", one("Conv", w(4, 6, 3, 3), pads=[1]), "has 1 numbers, 4 are needed"),
    ("huge kernel", one("MaxPool", kernel_shape=[2**40, 1]), "65536"),
    ("huge output", one("Resize", "", f([1, 1, 60000, 60000])), "more than"),
    ("mode", one("Resize", "", f([1, 1, 2, 2]), mode="area"), "'area' is not computed"),
    ("fractions of elements", one("Reshape", i(7, -1)), "cannot take the shape"),
    ("no such axis", one("Softmax", axis=9), "no axis 9"),
    ("beyond the end", one("Gather", i(6), axis=1), "indices"),
    ("constant too large", model(IMAGE, lambda n, x: n.Add(
        x, n.ConstantOfShape(i(2**20, 2**20)))), "too large"),
    ("places of maxima", model(IMAGE, lambda n, x: n.MaxPool(x, kernel_shape=[2, 2], outs=2)),
     "places of the maxima"),
    ("in training", one("BatchNormalization", *[w(6)] * 4, training_mode=1, opset=15), "training"),
    ("unknown condition", model(IMAGE, lambda n, x: n.If(n.Cast(n.ReduceMax(x), to=9), then_branch=(
        branch(1)), else_branch=branch(2))), "Cast"),
    ("six axes", one("Reshape", i(2, 3, 3, 3, 2, 6)), "more than five axes"),
    ("quantised", one("QLinearConv"), "export the float network"),
]


class RefuseTest(Folder):
    def refused(self, *options):
        code, said = run(self.source, "-o", self.target, *options)
        self.assertEqual(code, 1, said)
        self.assertNotIn("Traceback", said)
        self.assertEqual(sorted(os.listdir(os.path.dirname(self.target))),
                         sorted({"net.onnx"} & set(os.listdir(os.path.dirname(self.source)))))
        return said

    def test_bad_files(self):
        for label, proto, words in BAD:
            with self.subTest(label):
                self.save(proto)
                self.assertIn(words, self.refused())

    def test_everything_is_listed_and_the_cut_converts(self):
        def build(n, x):
            y = n.Conv(x, w(4, 6, 1, 1))
            boxes = n.Reshape(y, i(1, 108, 4))
            scores = n.Sigmoid(n.Reshape(n.Conv(x, w(1, 6, 1, 1)), i(1, 1, 108)))
            kept = n.NonMaxSuppression(boxes, scores)
            return [kept, n.Relu(n.TopK(scores, i(5), outs=2)[0])]
        self.save(model(IMAGE, build))
        said = self.refused()
        self.assertIn("2 nodes cannot be converted", said)
        self.assertIn("inputs (1, 108, 4), (1, 1, 108)", said)
        self.assertIn("zyn_ssd_nms", said)
        self.convert("--output", *said.split("--output ")[-1].split())

    def test_options(self):
        self.save(GOOD)
        for options, words in [(["--output", "nothing"], "output 'nothing'"),
                               (["--input-shape", "1,6,9"], "has 4 axes"),
                               (["--input-shape", "x=1,6,9,9"], "no input 'x'"),
                               (["--mean", "127"], "6 channels"),
                               (["--meaning", "x=scores"], "no output 'x'")]:
            self.assertIn(words, self.refused(*options))
        self.assertEqual(run(self.source)[0], 2)
        for source, target, words in [(self.source, self.source, "overwritten"),
                                      (os.path.dirname(self.source), self.target, "no file"),
                                      (self.source + "x", self.target, "cannot be read")]:
            code, said = run(source, "-o", target)
            self.assertEqual((code, words in said), (1, True), said)
        self.target = os.path.join(self.source, "net.zyn")
        self.assertEqual(run(self.source, "-o", self.target)[0], 1)

    def test_changed_bytes(self):
        rng, good = np.random.default_rng(7), GOOD.SerializeToString()
        for seed in range(300):
            data = bytearray(good)
            for at in rng.integers(0, len(data), rng.integers(1, 6)):
                data[at] = rng.integers(256)
            self.save(bytes(data[:rng.integers(len(data) // 2, 2 * len(data))]))
            code, said = run(self.source, "-o", self.target)
            self.assertIn(code, (0, 1), f"seed {seed}: {said}")


if __name__ == "__main__":
    unittest.main()
