"""Networks for the tests, and what they compute by the formula."""

import numpy as np
from zyncore.netfile import Writer



def conv_words(inputs, outputs, kernel=(3, 3), pad=1, activation=0):
    """The record of a convolution of type 12 with bias; kernel along x and y."""
    return [inputs, outputs, *kernel, 1, 1, pad, pad, 0, 0, 1, 1, 1, 1, activation, 0]


def convolve(image, weights, bias):
    """3 x 3, stride 1, padding 1, in double precision."""
    windows = np.lib.stride_tricks.sliding_window_view(
        np.pad(image.astype(float), ((0, 0), (1, 1), (1, 1))), (3, 3), axis=(1, 2))
    return np.einsum("cyxij,ocij->oyx", windows, weights.astype(float)) + bias[:, None, None]


class TwoLayers:
    """image (1, 3, 9, 14) -> conv to 13 channels ("a"), conv to 5 ("out"); small eighths, so
    that every order of summation gives the same floats."""

    def __init__(self, seed=5):
        rng = np.random.default_rng(seed)

        def eighths(*shape):
            return (rng.integers(-8, 8, shape) / 8).astype(np.float32)
        self.image = eighths(1, 3, 9, 14)
        layers = [(eighths(13, 3, 3, 3), eighths(13)), (eighths(5, 13, 3, 3), eighths(5))]
        net = Writer()
        node = net.input("image", (14, 9, 3))
        net.q(node, 8)
        self.values, values = {}, self.image[0]
        for name, (weights, bias) in zip(("a", "out"), layers):
            constant = net.constant(name + ".w", np.concatenate([weights.ravel(), bias]))
            node = net.node("CONV_ACT", name, [node, constant],
                            conv_words(weights.shape[1], weights.shape[0]))
            net.q(node, 8)
            values = self.values[name] = convolve(values, weights, bias)
        net.output("result", node)
        net.metadata("origin", "a test")
        self.file = net.tobytes()


def slow_network(channels=64, width=320, height=240):
    """Three layers of ones that take long."""
    net = Writer()
    node = net.input("image", (width, height, channels))
    ones = net.constant("ones", np.ones(channels * channels * 9 + channels))
    for i in range(3):
        node = net.node("CONV_ACT", f"conv{i}", [node, ones], conv_words(channels, channels))
    net.output("result", node)
    return net.tobytes()


def bright_cells(resize="border"):
    """A detector of bright cells: pictures of 64 x 48 in cells of 16 x 16, whose score is their
    mean brightness; boxes are the cells."""
    width, height, cell = 64, 48, 16
    cells = [(x, y) for y in range(height // cell) for x in range(width // cell)]
    weights = np.zeros((len(cells), 2, 3, height, width), np.float32)
    for i, (x, y) in enumerate(cells):
        weights[i, 1, :, y * cell:(y + 1) * cell, x * cell:(x + 1) * cell] = 1 / (3 * cell * cell)
    net = Writer()
    image = net.input("image", (width, height, 3), channel_order="rgb", resize=resize,
                      mean=(128,) * 3, scale=(1 / 16,) * 3)
    for name, meaning, values, group in (("scores", "scores", weights, 2),
                                         ("offsets", "offsets", None, 4)):
        count = group * len(cells)
        flat = np.zeros(count * (width * height * 3 + 1), np.float32)
        if values is not None:
            flat[:values.size] = values.ravel()
        dense = net.node("CONV_ACT", name + ".dense", [image, net.constant(name + ".w", flat)],
                         conv_words(3, count, (width, height), 0))
        net.output(name, net.node("RESHAPE", name, [dense], [2, group, len(cells)]),
                   meaning=meaning)
    for key, value in (("role", "detector"), ("strides", "16"), ("min-sizes", "16"),
                       ("variances", "0.1,0.2")):
        net.metadata("face." + key, value)
    return net.tobytes()
