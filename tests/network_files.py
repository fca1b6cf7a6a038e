"""Files for tests/check_network_tools.sh, and what numpy says the tools should make of them.

usage: network_files.py make FOLDER    networks, pictures and arrays
       network_files.py check FOLDER   the outputs that zyn-run wrote there
"""
import pathlib
import struct
import sys

import numpy as np
from zyncore.netfile import Writer

W, H = 8, 6
MEAN, SCALE = (10.0, 20.0, 30.0), (0.5, 0.25, 0.125)
random = np.random.default_rng(5)
# Planes blue, green, red of pictures by name; rows downwards.
PICTURES = {name: random.integers(0, 256, (3, h, w), dtype=np.uint8)
            for name, w, h in (("whole", W, H), ("wide", W, 3), ("tall", W, 12))}
WEIGHTS = random.normal(0, 0.02, (4, 3, 3, 3)).astype("<f4")
BIAS = np.array([0.5, -0.5, 0.25, 1], "<f4")


def write_bmp(path, planes):
    _, h, w = planes.shape
    rows = np.zeros((h, -(-3 * w // 4) * 4), np.uint8)
    rows[:, :3 * w] = planes.transpose(1, 2, 0)[::-1].reshape(h, 3 * w)
    path.write_bytes(struct.pack("<2sIIIIiiHHIIiiII", b"BM", 54 + rows.size, 0, 54, 40, w, h, 1,
                                 24, 0, rows.size, 0, 0, 0, 0) + rows.tobytes())


def grey(planes):
    b, g, r = planes.astype(int)
    return (1868 * b + 9617 * g + 4899 * r + 8192) >> 14


def prepared(planes):
    return (planes.astype("<f4") - np.array(MEAN, "<f4")[:, None, None]) * \
        np.array(SCALE, "<f4")[:, None, None]


def convolved(planes):
    """The output of net.zyn: a 3 x 3 convolution, and the sum of it and its ReLU."""
    padded = np.pad(planes.astype(float), ((0, 0), (1, 1), (1, 1)))
    sums = np.array([sum((padded[i, y:y + H, x:x + W] * WEIGHTS[o, i, y, x])
                         for i in range(3) for y in range(3) for x in range(3)) + BIAS[o]
                     for o in range(4)])
    return np.maximum(sums, 0), np.maximum(sums, 0) + 0.5 * sums


def make(folder):
    # Copies of what a picture's input holds, by the rule for its size and its channels.
    for name, order, rule in (("none", "bgr", "none"), ("border", "rgb", "border"),
                              ("crop", "bgr", "crop"), ("grey", "grey", "none")):
        net = Writer()
        image = net.input("image", (W, H, 1 if order == "grey" else 3), channel_order=order,
                          resize=rule, mean=MEAN, scale=SCALE)
        net.output("pixels", net.node("FUNCTION", "copy", [image], [10, 1.0, 0.0]))
        net.write(folder / f"{name}.zyn")
    net = Writer()
    image = net.input("image", (W, H, 3), channel_order="bgr", mean=MEAN, scale=SCALE)
    weights = net.constant("weights", np.r_[WEIGHTS.ravel(), BIAS])
    half = net.constant("half", np.r_[0.5 * WEIGHTS.ravel(), 0.5 * BIAS])
    record = [3, 4, 3, 3, 1, 1, 1, 1, 0, 0, 1, 1, 1, 1]
    relu = net.node("CONV_ACT", "act", [image, weights], record + [1, 0])
    plain = net.node("CONV", "", [image, half], record + [0, 0])
    net.output("sum/1", net.node("ADD", "both", [relu, plain]))
    net.output("relu", relu)
    net.metadata("origin", 'a "test"\n')
    net.write(folder / "net.zyn")
    for name, planes in PICTURES.items():
        write_bmp(folder / f"{name}.bmp", planes)
    whole = prepared(PICTURES["whole"])
    np.save(folder / "bytes.npy", PICTURES["whole"][None])
    np.save(folder / "floats.npy", whole)
    np.save(folder / "short.npy", whole[:, 1:])
    np.save(folder / "doubles.npy", whole.astype(float))
    np.save(folder / "fortran.npy", np.asfortranarray(whole))
    (folder / "cut.npy").write_bytes((folder / "floats.npy").read_bytes()[:-1])
    whole.tofile(folder / "floats.f32")
    np.where(whole == whole.max(), np.nan, whole).astype("<f4").tofile(folder / "nan.f32")


def check(folder):
    whole = PICTURES["whole"]
    black = np.zeros((3, H, W), np.uint8)
    black[:, 1:4] = PICTURES["wide"]
    relu, both = convolved(prepared(whole))
    expected = {"none/pixels": prepared(whole), "border/pixels": prepared(black[::-1]),
                "crop/pixels": prepared(PICTURES["tall"][:, 3:9]),
                "grey/pixels": (grey(whole)[None] - MEAN[0]) * SCALE[0]}
    for kind in ("bmp", "bytes", "floats", "raw", "fixed"):
        expected.update({f"{kind}/sum_1": both, f"{kind}/relu": relu})
    expected["floats/node4"] = both - relu
    for name, values in expected.items():
        got = np.load(folder / f"{name}.npy")
        wanted = values if name.endswith("node4") else values[None]  # leading axes of ports alone
        assert got.dtype == np.float32 and got.shape == wanted.shape, (name, got.shape)
        bound = 0.02 if "fixed" in name else 1e-5
        assert np.abs(got - wanted).max() <= bound, (name, np.abs(got - wanted).max())
    assert {p.name for p in (folder / "bmp").iterdir()} == {"sum_1.npy", "relu.npy"}
    for kind in ("floats", "raw"):  # bytes ran by another method
        assert np.array_equal(np.load(folder / f"{kind}/sum_1.npy"),
                              np.load(folder / "bmp/sum_1.npy")), kind


if __name__ == "__main__":
    {"make": make, "check": check}[sys.argv[1]](pathlib.Path(sys.argv[2]))
