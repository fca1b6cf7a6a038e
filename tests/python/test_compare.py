"""zyncore.compare finds planted faults: the node, and what they look like."""

import contextlib
import io
import os
import tempfile
import unittest

import numpy as np

try:
    import onnx
    from onnx import helper, numpy_helper
    import zyncore  # noqa: F401 (with the library)
    from zyncore import netfile
    from zyncore.compare import compare
    from zyncore.compare.__main__ import main
except ImportError as missing:
    raise unittest.SkipTest(str(missing))

RANDOM = np.random.default_rng(5)
W1 = RANDOM.standard_normal((8, 3, 3, 3)).astype(np.float32)
B1 = RANDOM.standard_normal(8).astype(np.float32)
W2 = RANDOM.standard_normal((8, 1, 3, 3)).astype(np.float32)
W2[..., 0] = 0  # so that moving the kernel by one column loses nothing
STATISTICS = [RANDOM.uniform(0.5, 1.5, 8).astype(np.float32) for _ in range(4)]
W3 = RANDOM.standard_normal((4, 8, 1, 1)).astype(np.float32)
B3 = RANDOM.standard_normal(4).astype(np.float32)


def model():
    """Convolution, normalised depthwise convolution, bilinear enlargement, convolution."""
    tensors = {"w1": W1, "b1": B1, "w2": W2, "w3": W3, "b3": B3,
               **{f"s{i}": v for i, v in enumerate(STATISTICS)},
               "scales": np.float32([1, 1, 2, 2])}
    nodes = [
        helper.make_node("Conv", ["x", "w1", "b1"], ["conv"], pads=[1] * 4),
        helper.make_node("Relu", ["conv"], ["a"]),
        helper.make_node("Conv", ["a", "w2"], ["dw"], pads=[1] * 4, group=8),
        helper.make_node("BatchNormalization", ["dw", "s0", "s1", "s2", "s3"], ["bn"]),
        helper.make_node("Relu", ["bn"], ["b"]),
        helper.make_node("Resize", ["b", "", "scales"], ["c"], mode="linear"),
        helper.make_node("Conv", ["c", "w3", "b3"], ["d"])]
    graph = helper.make_graph(
        nodes, "net", [helper.make_tensor_value_info("x", 1, ["batch", 3, 12, 16])],
        [helper.make_tensor_value_info("d", 1, None)],
        [numpy_helper.from_array(v, k) for k, v in tensors.items()])
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])


def network():
    out = netfile.Writer()
    ends = [0, 0, 1, 1]  # reserved words, dilations
    x = out.input("x", (16, 12, 3))
    k = out.constant("k1", np.concatenate([W1.ravel(), B1]))
    a = out.node("CONV_ACT", "a", [x, k], [3, 8, 3, 3, 1, 1, 1, 1, *ends, 1, 1, 1, 0])
    k = out.constant("k2", np.concatenate([W2.ravel(), *STATISTICS]))
    b = out.node("CONV_BN", "b", [a, k], [8, 8, 3, 3, 1, 1, 1, 1, *ends, 8, 0, 1e-5, 1])
    c = out.node("RESAMPLE", "c", [b], [1, 2.0, 2.0])
    k = out.constant("k3", np.concatenate([W3.ravel(), B3]))
    d = out.node("CONV_POINTWISE", "d", [c, k], [8, 4, 1, 1, 1, 1, 0, 0, *ends, 1, 1, 0, 0])
    out.output("d", d)
    return out.tobytes()


def constant(name, change):
    """A fault in the values of a constant."""
    def plant(content):
        values = next(n for n in content.nodes if n.name == name).values
        values[:] = change(values.copy())
    return plant


def word(name, index, value):
    """A fault in a word of a record."""
    def plant(content):
        words = next(n for n in content.nodes if n.name == name).words
        words.view(np.float32 if isinstance(value, float) else np.int32)[index] = value
    return plant


def weights(shape, change):
    """A change of a constant's weights, which have a shape."""
    count = int(np.prod(shape))
    return lambda v: np.concatenate([change(v[:count].reshape(shape)).ravel(), v[count:]])


def tail(count, change):
    return lambda v: np.concatenate([v[:-count], change(v[-count:])])


FAULTS = [  # node, pattern, what is planted
    ("a", "channels swapped", constant("k1", weights(W1.shape, lambda w: w[:, ::-1]))),
    ("d", "channels swapped", constant("k3", lambda v: np.concatenate(
        [v[:32].reshape(4, 8)[[2, 1, 0, 3]].ravel(), v[32:][[2, 1, 0, 3]]]))),
    ("a", "rows and columns exchanged",
     constant("k1", weights(W1.shape, lambda w: w.swapaxes(2, 3)))),
    ("d", "scale", constant("k3", lambda v: v * 1.01)),
    ("d", "shift", constant("k3", tail(4, lambda bias: bias + 0.1))),
    ("a", "shift", constant("k1", tail(8, lambda bias: bias + np.linspace(0, 0.3, 8)))),
    ("b", "wrong epsilon", word("b", 14, 1e-3)),
    ("b", "wrong epsilon", word("b", 14, 3e-3)),  # not among the usual ones
    ("a", "activation missing", word("a", 14, 0)),
    ("a", "another activation", word("a", 14, 2)),
    ("b", "displaced", constant("k2", weights(W2.shape, lambda w: np.roll(w, -1, 3)))),
    ("c", "displaced", word("c", 0, 0)),
    ("d", "bias missing", word("d", 13, 0)),
    ("d", "weights in another order", constant("k3", weights((4, 8), lambda w: w.T))),
]


class Compare(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.onnx = os.path.join(folder.name, "net.onnx")
        self.zyn = os.path.join(folder.name, "net.zyn")
        onnx.save(model(), self.onnx)
        with open(self.zyn, "wb") as file:
            file.write(network())

    def run_main(self, *arguments):
        text = io.StringIO()
        with contextlib.redirect_stdout(text), contextlib.redirect_stderr(text):
            code = main([self.onnx, self.zyn, *arguments])
        return code, text.getvalue()

    def test_faithful_network_passes_whatever_the_method(self):
        self.assertEqual(netfile.read(self.zyn).tobytes(), network())
        for method in ("automatic", 0, 1, 2):
            report = compare(self.onnx, self.zyn, method=method)
            self.assertTrue(report.ok, "\n".join(report.lines()))
            self.assertEqual([row.name for row in report.rows], ["a", "b", "c", "d", "d (output)"])

    def test_planted_faults_are_named(self):
        for node, pattern, plant in FAULTS:
            with self.subTest(node=node, pattern=pattern):
                content = netfile.Content(network())
                plant(content)
                content.write(self.zyn)
                report = compare(self.onnx, self.zyn, seed=3)
                self.assertEqual((report.first_bad, report.pattern), (node, pattern),
                                 "\n".join(report.lines()))

    def test_command(self):
        array = os.path.join(os.path.dirname(self.zyn), "in.npy")
        np.save(array, np.ones((3, 12, 16), np.float32))
        code, text = self.run_main(array, "--method", "1")
        self.assertEqual(code, 0, text)
        self.assertIn("all 5 within 0.0001", text)
        content = netfile.read(self.zyn)
        word("a", 14, 0)(content)
        content.write(self.zyn)
        code, text = self.run_main()
        self.assertEqual(code, 1)
        self.assertIn("first beyond 0.0001: 'a'\npattern: activation missing: these are the values "
                      "of 'conv'\n", text)
        np.save(array, np.ones((3, 12, 15), np.float32))
        for damage in (lambda: self.run_main(array), lambda: self.spoil(self.zyn),
                       lambda: self.spoil(self.onnx)):
            code, text = damage()
            self.assertEqual((code, text.count("\n")), (2, 1), text)
            self.assertTrue(text.startswith("zyn-compare: "), text)

    def spoil(self, path):
        with open(path, "r+b") as file:
            file.truncate(100)
        return self.run_main()


if __name__ == "__main__":
    unittest.main()
