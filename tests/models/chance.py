"""Random graphs of random operators: what no exporter thought of."""

import numpy as np

from foreign import Builder


class Chance:
    """Draws nodes whose inputs are any values before them. Shapes are [1, channels, rows,
    columns] or [1, places, values]; all values stay of moderate size."""

    def __init__(self, builder):
        self.g = builder
        self.random = builder.random
        self.values = [("image", list(builder.shape))]

    def pick(self, *options):
        return options[self.random.integers(len(options))]

    def whole(self, low, high):
        return int(self.random.integers(low, high + 1))

    def ints(self, *values):
        return self.g.constant(np.int64(values))

    def number(self, value):
        return self.g.constant(np.float32(value))

    def draw(self):
        x, shape = self.values[-1 - min(int(self.random.exponential(1.5)), len(self.values) - 1)]
        kinds = PLACES if len(shape) == 4 else ROWS
        made = self.pick(*kinds, *ANY)(self, x, shape)
        if made:
            self.values.append(made)

    # Operators on pictures.

    def conv(self, x, s):
        n, group = self.whole(1, 9), 1
        if self.pick(0, 1):
            group = s[1] if self.pick(0, 1) else self.pick(*[d for d in range(1, s[1] + 1)
                                                             if s[1] % d == 0])
            n = group * self.whole(1, 2)
        k, d, st = ([self.whole(1, high) for _ in "yx"] for high in (4, 2, 2))
        pads = [self.whole(0, 2) for _ in range(4)]
        out = [(s[2 + i] + pads[i] + pads[2 + i] - (k[i] - 1) * d[i] - 1) // st[i] + 1
               for i in (0, 1)]
        if min(out) < 1:
            return None
        weights = [self.g.weight(n, s[1] // group, *k)]
        weights += [self.g.weight(n, low=-1, high=1)] * self.whole(0, 1)
        return self.g.op("Conv", x, *weights, kernel_shape=k, dilations=d, strides=st, pads=pads,
                         group=group), [1, n, *out]

    def square(self, x, s):
        """The shapes that methods have kernels for."""
        k, st, n, dw = self.pick(1, 3, 3, 5), self.pick(1, 2), self.whole(1, 20), self.whole(0, 1)
        w = self.g.weight(s[1] if dw else n, 1 if dw else s[1], k, k)
        n = s[1] if dw else n
        y = self.g.op("Conv", x, w, self.g.weight(n, low=-1, high=1), strides=[st] * 2,
                      pads=[k // 2] * 4, group=s[1] if dw else 1)
        return y, [1, n, *[(v - 1) // st + 1 for v in s[2:]]]

    def transposed(self, x, s):
        k, st = self.whole(1, 4), self.whole(1, 3)
        pad, extra, n = self.whole(0, k - 1), self.whole(0, st - 1), self.whole(1, 6)
        out = [(v - 1) * st + k - 2 * pad + extra for v in s[2:]]
        if min(out) < 1 or max(out) > 40:
            return None
        return self.g.op("ConvTranspose", x, self.g.weight(s[1], n, k, k), strides=[st] * 2,
                         pads=[pad] * 4, output_padding=[extra] * 2), [1, n, *out]

    def pool(self, x, s):
        k, st = ([self.whole(1, 3) for _ in "yx"] for _ in "ks")
        pads = [self.whole(0, k[i % 2] - 1) for i in range(4)]
        ceil = self.whole(0, 1)
        out = []
        for i in (0, 1):
            free = s[2 + i] + pads[i] + pads[2 + i] - k[i]
            if free < 0:
                return None
            count = (-(-free // st[i]) if ceil else free // st[i]) + 1
            out.append(count - (ceil and (count - 1) * st[i] >= s[2 + i] + pads[i]))
        kind = self.pick("MaxPool", "AveragePool")
        more = {"count_include_pad": self.whole(0, 1)} if kind == "AveragePool" else {}
        return self.g.op(kind, x, kernel_shape=k, strides=st, pads=pads, ceil_mode=ceil, **more), \
            [1, s[1], *out]

    def norm(self, x, s):
        return self.g.norm(x, s[1]), s

    def instance(self, x, s):
        if s[2] * s[3] < 4:
            return None
        return self.g.op("InstanceNormalization", x, self.g.weight(s[1]), self.g.weight(s[1]),
                         epsilon=1e-2), s

    def slopes(self, x, s):
        return self.g.op("PRelu", x, self.g.weight(s[1], 1, 1, low=-0.2, high=0.6)), s

    def resize(self, x, s):
        out = [self.whole(1, 20), self.whole(1, 20)]
        mode = self.pick("nearest", "linear", "linear", "cubic")
        place = self.pick("half_pixel", "pytorch_half_pixel", "align_corners", "asymmetric")
        rounding = self.pick("floor", "ceil", "round_prefer_floor", "round_prefer_ceil")
        return self.g.op("Resize", x, "", "", self.ints(1, s[1], *out), mode=mode,
                         nearest_mode=rounding, coordinate_transformation_mode=place), \
            [1, s[1], *out]

    def larger(self, x, s):
        scale = self.pick(2, 2, 1.5)
        if max(s[2:]) > 20:
            return None
        y = self.g.op("Resize", x, "", self.g.constant(np.float32([1, 1, scale, scale])),
                      mode=self.pick("nearest", "linear"), nearest_mode="floor",
                      coordinate_transformation_mode=self.pick("asymmetric", "half_pixel"))
        return y, [1, s[1], *[int(v * scale) for v in s[2:]]]

    def excite(self, x, s):
        y = self.g.op(self.pick("GlobalAveragePool", "GlobalMaxPool"), x)
        y = self.g.op(self.pick("Sigmoid", "Relu", "HardSigmoid"), self.g.conv(y, s[1], s[1], 1))
        return self.g.op(self.pick("Mul", "Add", "Sub"), *self.pick((x, y), (y, x))), s

    def flat(self, x, s):
        y = self.g.op("Transpose", x, perm=[0, 2, 3, 1])
        values = self.pick(*[d for d in range(1, s[1] + 1) if s[1] % d == 0])
        return self.g.op("Reshape", y, self.ints(0, -1, values)), \
            [1, s[1] * s[2] * s[3] // values, values]

    def blocks(self, x, s):
        if s[1] % 4 == 0:
            return self.g.op("DepthToSpace", x, blocksize=2, mode=self.pick("DCR", "CRD")), \
                [1, s[1] // 4, 2 * s[2], 2 * s[3]]
        if s[2] % 2 == 0 and s[3] % 2 == 0:
            return self.g.op("SpaceToDepth", x, blocksize=2), [1, 4 * s[1], s[2] // 2, s[3] // 2]
        return None

    def turned(self, x, s):
        order = [0, *(1 + self.random.permutation(3))]
        return self.g.op("Transpose", x, perm=[int(i) for i in order]), [s[i] for i in order]

    # Operators on rows of values.

    def dense(self, x, s):
        n = self.whole(1, 8)
        y = self.g.op("MatMul", x, self.g.weight(s[2], n))
        return (self.g.op("Add", y, self.g.weight(n)) if self.pick(0, 1) else y), [1, s[1], n]

    def picture(self, x, s):
        n = self.pick(*[d for d in range(1, s[1] + 1) if s[1] % d == 0])
        return self.g.op("Reshape", x, self.ints(1, n, -1, s[2])), [1, n, s[1] // n, s[2]]

    def layer(self, x, s):
        if s[2] < 2:
            return None
        return self.g.op("LayerNormalization", x, self.g.weight(s[2]), self.g.weight(s[2]),
                         axis=-1, epsilon=1e-2), s

    def swapped(self, x, s):
        return self.g.op("Transpose", x, perm=[0, 2, 1]), [1, s[2], s[1]]

    def attend(self, x, s):
        if s[1] > 80:
            return None
        y = self.g.op("MatMul", x, self.g.op("Transpose", x, perm=[0, 2, 1]))
        return self.g.op("MatMul", self.g.op("Softmax", y, axis=-1), x), s

    # Operators on anything.

    def activation(self, x, s):
        kind = self.pick("Relu", "Relu", "Sigmoid", "Tanh", "LeakyRelu", "Elu", "HardSwish",
                         "HardSigmoid", "Clip", "Softplus", "Abs", "Neg", "silu", "mish", "hswish")
        if kind == "Clip":
            return self.g.op(kind, x, self.number(-0.3), self.number(0.9)), s
        if kind == "silu":
            return self.g.op("Mul", x, self.g.op("Sigmoid", x)), s
        if kind == "mish":
            return self.g.op("Mul", x, self.g.op("Tanh", self.g.op("Softplus", x))), s
        if kind == "hswish":
            y = self.g.op("Add", x, self.number(3))
            y = self.g.op("Clip", y, self.number(0), self.number(6))
            return self.g.op("Div", self.g.op("Mul", x, y), self.number(6)), s
        return self.g.op(kind, x), s

    def soft(self, x, s):
        return self.g.op(self.pick("Softmax", "LogSoftmax"), x, axis=self.whole(1, len(s) - 1)), s

    def arithmetic(self, x, s):
        axes = [n if self.pick(0, 1) else 1 for n in s]
        axes = axes[self.whole(0, len(s) - 1):] if self.pick(0, 1) else axes
        y = self.g.weight(*axes, low=0.5, high=1.5)
        kind = self.pick("Add", "Sub", "Mul", "Div", "Max", "Min")
        return self.g.op(kind, *((y, x) if self.pick(0, 1) and kind != "Div" else (x, y))), s

    def with_other(self, x, s):
        same = [v for v, t in self.values if len(t) == len(s) and
                all(a in (1, b) for a, b in zip(t, s))]
        kind = self.pick("Add", "Add", "Sub", "Max", "Min")
        other = self.pick(*same)
        return self.g.op(kind, *((x, other) if self.pick(0, 1) else (other, x))), s

    def joined(self, x, s):
        axis = self.whole(1, len(s) - 1)
        same = [(v, t) for v, t in self.values if len(t) == len(s) and
                all(t[i] == s[i] for i in range(len(s)) if i != axis)]
        some = [self.pick(*same) for _ in range(self.whole(1, 2))] + [(x, s)]
        out = list(s)
        out[axis] = sum(t[axis] for _, t in some)
        if out[axis] > 90:
            return None
        return self.g.op("Concat", *[v for v, _ in some], axis=axis), out

    def part(self, x, s):
        axis = self.whole(1, len(s) - 1)
        if s[axis] < 2:
            return None
        first = self.whole(0, s[axis] - 2)
        step = self.pick(1, 1, 2)
        y = self.g.op("Slice", x, *[self.ints(i) for i in (first, 2 ** 40, axis, step)])
        out = list(s)
        out[axis] = -(-(s[axis] - first) // step)
        return y, out

    def split(self, x, s):
        axis = self.whole(1, len(s) - 1)
        if s[axis] < 2:
            return None
        first = self.whole(1, s[axis] - 1)
        a, b = self.g.op("Split", x, self.ints(first, s[axis] - first), axis=axis, outputs=2)
        out = [s[:axis] + [n] + s[axis + 1:] for n in (first, s[axis] - first)]
        self.values.append((a, out[0]))
        return b, out[1]

    def gather(self, x, s):
        axis = self.whole(1, len(s) - 1)
        at = [self.whole(0, s[axis] - 1) for _ in range(self.whole(1, 5))]
        return self.g.op("Gather", x, self.ints(*at), axis=axis), \
            s[:axis] + [len(at)] + s[axis + 1:]

    def padded(self, x, s):
        mode = self.pick("constant", "reflect", "edge")
        before, after = ([0] + [self.whole(0, min(2, n - 1)) for n in s[1:]] for _ in "ba")
        return self.g.op("Pad", x, self.ints(*before, *after), self.number(0.5), mode=mode), \
            [a + n + b for a, n, b in zip(before, s, after)]

    def reduced(self, x, s):
        axes = sorted({self.whole(1, len(s) - 1) for _ in "ab"})
        kind = self.pick("ReduceMean", "ReduceMax", "ReduceMin", "ReduceL2")
        return self.g.op(kind, x, axes=axes, keepdims=1), \
            [1 if i in axes else n for i, n in enumerate(s)]


_C = Chance
PLACES = [_C.conv, _C.square, _C.square, _C.square, _C.transposed, _C.pool, _C.norm, _C.norm,
          _C.instance, _C.slopes, _C.resize, _C.larger, _C.excite, _C.flat, _C.blocks, _C.turned]
ROWS = [_C.dense, _C.dense, _C.picture, _C.layer, _C.swapped, _C.attend]
ANY = [_C.activation, _C.activation, _C.activation, _C.soft, _C.arithmetic, _C.with_other,
       _C.with_other, _C.joined, _C.part, _C.split, _C.gather, _C.padded, _C.reduced]


def graph(seed):
    """A builder with a graph whose outputs are the values that nothing reads."""
    random = np.random.default_rng(seed)
    shape = [1, *(int(n) for n in random.integers(1, 13, 3))]
    builder = Builder(shape, 17, seed)
    chance = Chance(builder)
    while len(chance.values) < 12:
        if np.prod(chance.values[-1][1]) > 60000:
            break
        chance.draw()
    read = {name for node in builder.nodes for name in node.input}
    builder.outputs = [name for name, _ in chance.values if name not in read and name != "image"]
    return builder
