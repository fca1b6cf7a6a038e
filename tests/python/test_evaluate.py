"""The evaluator of ONNX models against torch, one exported expression at a time."""

import io
import unittest
import warnings

import numpy as np

try:
    import onnx
    import torch
    import torch.nn.functional as F
    from torch import nn
    from zyncore.evaluate import Unsupported, evaluate, evaluate_node
except ImportError as missing:
    raise unittest.SkipTest(str(missing))


class Call(nn.Module):
    def __init__(self, function):
        super().__init__()
        self.function = function

    def forward(self, *inputs):
        return self.function(*inputs)


def module(layer):
    """A layer whose parameters and statistics are random and not their defaults."""
    for value in [*layer.parameters(), *layer.buffers()]:
        if value.is_floating_point():
            value.data = torch.rand_like(value) * 1.5 - 0.5
    for name, value in layer.named_buffers():
        if name.endswith("running_var"):
            value.data = torch.rand_like(value) + 0.3
    return layer


IMAGE = (1, 6, 9, 12)
ODD = (1, 4, 11, 8)
GELU_TANH = lambda x: x * 0.5 * (1 + torch.tanh(0.79788456 * (x + 0.044715 * x ** 3)))

# Label, shape of the input (or shapes of several), function, opsets beside 13.
CASES = [
    ("conv", IMAGE, lambda: nn.Conv2d(6, 5, (3, 2), (2, 1), (1, 0), (1, 2)), ()),
    ("conv in groups", IMAGE, lambda: nn.Conv2d(6, 9, 3, padding=2, dilation=2, groups=3), (9,)),
    ("conv depthwise", IMAGE, lambda: nn.Conv2d(6, 12, 3, groups=6, bias=False), ()),
    ("conv 1d", (2, 3, 10), lambda: nn.Conv1d(3, 4, 3, 2, 1), ()),
    ("transposed", ODD, lambda: nn.ConvTranspose2d(4, 6, (3, 4), (2, 3), 1, (1, 2), 2), ()),
    ("transposed dilated", ODD, lambda: nn.ConvTranspose2d(4, 3, 3, 2, 2, dilation=2), (9,)),
    ("batch norm", IMAGE, lambda: nn.BatchNorm2d(6, eps=1e-3), (9, 17)),
    ("batch norm 1d", (1, 6), lambda: nn.BatchNorm1d(6), ()),
    ("instance norm", IMAGE, lambda: nn.InstanceNorm2d(6, affine=True), ()),
    ("group norm", IMAGE, lambda: nn.GroupNorm(3, 6), (9,)),
    ("layer norm", IMAGE, lambda: nn.LayerNorm([9, 12]), (9, 17)),
    ("local response", IMAGE, lambda: nn.LocalResponseNorm(4), ()),
    ("prelu", IMAGE, lambda: nn.PReLU(6), (9,)),
    ("linear", (3, 12), lambda: nn.Linear(12, 5), (9,)),
    ("linear of three", (2, 3, 12), lambda: nn.Linear(12, 5, bias=False), ()),
    ("max pool", IMAGE, lambda: nn.MaxPool2d((3, 2), (2, 1), 1), (9,)),
    ("max pool ceil", ODD, lambda: nn.MaxPool2d(2, 2, ceil_mode=True), ()),
    ("max pool last window", (1, 4, 4, 5), lambda: nn.MaxPool2d(2, 3, 1, ceil_mode=True), ()),
    ("max pool dilated", IMAGE, lambda: nn.MaxPool2d(3, 1, 1, dilation=2), (10,)),
    ("average pool", ODD, lambda: nn.AvgPool2d(3, 2, 1), (9,)),
    ("average pool inside", ODD, lambda: nn.AvgPool2d(3, 2, 1, count_include_pad=False), ()),
    ("average pool ceil", IMAGE, lambda: nn.AvgPool2d(2, 2, ceil_mode=True), ()),
    ("adaptive pool", IMAGE, lambda: nn.AdaptiveAvgPool2d(1), (9,)),
    ("adaptive max", IMAGE, lambda: nn.AdaptiveMaxPool2d(1), ()),
    ("adaptive pool 3", IMAGE, lambda: nn.AdaptiveAvgPool2d((3, 4)), ()),
    ("lp pool", (1, 4, 8, 8), lambda: nn.LPPool2d(2, 2), ()),
    ("activations", IMAGE, lambda: Call(lambda x: sum(f(x) for f in (
        F.relu, F.relu6, F.elu, F.selu, F.celu, F.softplus, F.softsign, F.leaky_relu, torch.sigmoid,
        torch.tanh, F.hardsigmoid, F.hardtanh, F.silu))), (17,)),
    ("more activations", IMAGE, lambda: Call(lambda x: F.hardswish(x) + F.mish(x) + F.gelu(x)
                                             + GELU_TANH(x) + F.glu(x, 1).sum()
                                             + F.elu(x) + F.softplus(x)), (9, 14)),
    ("clip", IMAGE, lambda: Call(lambda x: x.clamp(-0.2, 0.5) + x.clamp(min=0.1)), (9, 11)),
    ("unary", IMAGE, lambda: Call(lambda x: x.abs().sqrt() + x.exp() + (x.abs() + 1).log() - x
                                  + (x + 9).reciprocal() + x.floor() * x.ceil() + x.round()
                                  + x.neg()
                                  + torch.erf(x) + x.sign() + x.sin() + x.cos()), (11,)),
    ("binary", (IMAGE, (6, 1, 1)), lambda: Call(lambda a, b: a * b - a / (b.abs() + 1)
                                                + torch.max(a, b) * torch.min(a, b) + a.pow(3)
                                                + torch.where(a > b, a, b)), (9,)),
    ("softmax", IMAGE, lambda: Call(lambda x: F.softmax(x, 1) + F.log_softmax(x, 2)), (9, 11)),
    ("softmax last", (1, 5, 7), lambda: Call(lambda x: F.softmax(x, -1)), (11,)),
    ("reduce", IMAGE, lambda: Call(lambda x: x.mean((2, 3), True) + x.sum(1, True)
                                   + x.amax((1, 3), True) + x.amin(2, True)
                                   + x.norm(dim=3, keepdim=True)
                                   + x.prod(1, True) + x.logsumexp(1, True) + x.mean()), (11, 17)),
    ("normalised", (1, 16), lambda: Call(lambda x: F.normalize(x) + F.normalize(x, p=1.0)), (9,)),
    ("matmul", ((1, 2, 5, 4), (2, 4, 3)), lambda: Call(torch.matmul), ()),
    ("einsum", ((5, 4), (4, 3)), lambda: Call(lambda a, b: torch.einsum("ij,jk->ki", a, b)), ()),
    ("moving", IMAGE, lambda: Call(lambda x: torch.cat([
        x.permute(0, 2, 3, 1).reshape(1, -1), x.flatten(1),
        x.squeeze(0).unsqueeze(1).reshape(1, -1),
        x.transpose(1, 2)[:, 1:8].flatten(1), x[..., -3:-1].reshape(1, -1),
        x[:, [4, 0, 2]].reshape(1, -1)], 1)), (9, 11)),
    ("parts", IMAGE, lambda: Call(lambda x: torch.cat([*torch.split(x, [1, 3, 2], 1),
                                                       *torch.chunk(x, 2, 1)][::-1], 1)), (9, 11)),
    ("shape arithmetic", IMAGE, lambda: Call(
        lambda x: x.reshape(x.size(0), x.size(1) // 2, -1)
        + torch.ones(1, 3, 1).expand(1, x.size(1) // 2, 1)), (9,)),
    ("steps", IMAGE, lambda: Call(lambda x: x[:, 1::2, ::3]), (10,)),
    ("depth to space", (1, 12, 4, 5), lambda: nn.PixelShuffle(2), (9,)),
    ("space to depth", (1, 3, 4, 6), lambda: nn.PixelUnshuffle(2), ()),
    ("repeat", (1, 2, 3, 4), lambda: Call(lambda x: x.repeat(1, 3, 2, 1)), ()),
    ("pad", IMAGE, lambda: Call(lambda x: F.pad(x, (1, 2, 3, 0), value=0.5)
                                + F.pad(x, (1, 2, 3, 0), mode="reflect")
                                + F.pad(x, (1, 2, 3, 0), mode="replicate")), (9,)),
    ("crop", IMAGE, lambda: Call(lambda x: F.pad(x, (-1, 2, 0, -3))), ()),
    ("nearest", IMAGE, lambda: Call(lambda x: F.interpolate(x, scale_factor=2)), (9, 10, 11)),
    ("nearest size", IMAGE, lambda: Call(lambda x: F.interpolate(x, size=(5, 31))), (11,)),
    ("bilinear", IMAGE, lambda: Call(lambda x: F.interpolate(x, scale_factor=2.5, mode="bilinear")),
     (11,)),
    ("bilinear down", IMAGE, lambda: Call(lambda x: F.interpolate(x, size=(4, 1), mode="bilinear")),
     (11,)),
    ("bilinear corners", IMAGE, lambda: Call(lambda x: F.interpolate(
        x, size=(17, 5), mode="bilinear", align_corners=True)), (11,)),
    ("bicubic", IMAGE, lambda: Call(lambda x: F.interpolate(x, size=(17, 30), mode="bicubic")), ()),
    ("top k", (1, 20), lambda: Call(lambda x: x.topk(5).values + x.argmax(1)
                                    + x.argmin(1, keepdim=True)), (11,)),
    ("cumulative", (1, 20), lambda: Call(lambda x: x.cumsum(1)), (14,)),
    ("gather", (4, 5), lambda: Call(lambda x: x.gather(1, torch.tensor([[0, 4], [2, 1]]))), ()),
]


def node(kind, outputs=1, **attributes):
    return onnx.helper.make_node(kind, ["x"], [str(i) for i in range(outputs)], **attributes)


class Evaluate(unittest.TestCase):
    def test_exported_expressions_give_what_torch_gives(self):
        for label, shapes, make, opsets in CASES:
            for opset in (13, *opsets):
                with self.subTest(label, opset=opset):
                    torch.manual_seed(opset)
                    layer = module(make()).eval()
                    shapes_of = [shapes] if isinstance(shapes[0], int) else shapes
                    inputs = [torch.randn(shape) for shape in shapes_of]
                    file = io.BytesIO()
                    names = [f"in{i}" for i in range(len(inputs))]
                    with torch.no_grad(), warnings.catch_warnings():
                        warnings.simplefilter("ignore")
                        expected = layer(*inputs).numpy()
                        torch.onnx.export(layer, tuple(inputs), file, opset_version=opset,
                                          input_names=names, do_constant_folding=False)
                    model = onnx.load_from_string(file.getvalue())
                    given = {name: x.numpy() for name, x in zip(names, inputs)}
                    found = evaluate(model, given)[model.graph.output[0].name]
                    self.assertEqual(found.dtype, np.float32)
                    np.testing.assert_allclose(found, expected, rtol=2e-5, atol=2e-5)

    def test_forms_that_torch_does_not_export(self):
        line = np.arange(1, 8, dtype=np.float32).reshape(1, 1, 7)
        ones = np.ones((1, 1, 2), np.float32)
        cases = [  # worked out by hand
            (node("Conv", auto_pad="SAME_UPPER"), (line, ones), [3, 5, 7, 9, 11, 13, 7]),
            (node("Conv", auto_pad="SAME_LOWER"), (line, ones), [1, 3, 5, 7, 9, 11, 13]),
            (node("Conv", auto_pad="SAME_UPPER", strides=[2]), (line, ones), [3, 7, 11, 7]),
            (node("ConvTranspose", strides=[2], auto_pad="SAME_UPPER"),
             (line[..., :2], np.float32([[[1, 2, 3]]])), [1, 2, 5, 4]),
            (node("ConvTranspose", strides=[2], output_shape=[6]), (line[..., :2], ones),
             [1, 1, 2, 2, 0, 0]),
            (node("AveragePool", kernel_shape=[2], strides=[2], ceil_mode=1, count_include_pad=1,
                  pads=[1, 1]), (line,), [0.5, 2.5, 4.5, 6.5]),
            (node("DepthToSpace", blocksize=2, mode="CRD"),
             (np.arange(4, dtype=np.float32).reshape(1, 4, 1, 1),), [0, 1, 2, 3]),
            (node("Resize", coordinate_transformation_mode="asymmetric", nearest_mode="ceil"),
             (line[..., :3], None, np.float32([1, 1, 2])), [1, 2, 2, 3, 3, 3]),
            (node("Resize", coordinate_transformation_mode="half_pixel",
                  nearest_mode="round_prefer_ceil"),
             (line[..., :4], None, None, [1, 1, 2]), [2, 4]),
            (node("Resize", coordinate_transformation_mode="tf_half_pixel_for_nn"),
             (line, None, None, [1, 1, 3]), [2, 4, 6]),
            (node("Clip"), (line, np.float32(2), np.float32(4)), [2, 2, 3, 4, 4, 4, 4]),
            (node("LpNormalization", axis=2), (np.float32([[[3, 4]]]),), [0.6, 0.8]),
            (node("Div"), (np.array([-7, 7]), np.array([2, -2])), [-3, -3]),
            (node("Slice"), (line, [5], [-99], [2], [-2]), [6, 4, 2]),
            (node("Reshape", allowzero=0), (line, [0, -1]), [1, 2, 3, 4, 5, 6, 7]),
            (node("Range"), (np.array(2), np.array(9), np.array(3)), [2, 5, 8]),
            (node("Squeeze", axes=[0, 1]), (line,), [1, 2, 3, 4, 5, 6, 7]),
        ]
        for proto, inputs, expected in cases:
            with self.subTest(proto.op_type, attributes=str(proto.attribute)):
                arrays = [None if x is None else np.asarray(x) for x in inputs]
                found = evaluate_node(proto, arrays, 13)[0]
                np.testing.assert_allclose(found.reshape(-1), expected, rtol=1e-6)

    def test_what_is_not_covered_says_so(self):
        x = np.zeros((1, 1, 4, 4), np.float32)
        for proto in (node("Loop"), node("MaxPool", 2, kernel_shape=[2, 2]),
                      node("BatchNormalization", training_mode=1)):
            with self.assertRaisesRegex(Unsupported, proto.op_type):
                evaluate_node(proto, [x] * (5 if "Norm" in proto.op_type else 1), 13)


if __name__ == "__main__":
    unittest.main()
