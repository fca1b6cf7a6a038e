"""Further kinds of networks, small: what other published families are built of.

CASES as in networks.py.
"""

import math

import torch
import torch.nn.functional as F
from torch import nn

from networks import Calls, anchors_last, conv, inverted, residual, separable, squeeze


class Chain(nn.Sequential):
    """Layers and plain functions, one behind the other."""

    def __init__(self, *steps):
        super().__init__(*[s if isinstance(s, nn.Module) else Calls(lambda self, x, s=s: s(x))
                           for s in steps])


# ---- Detectors ----

class Csp(nn.Module):
    def __init__(self, inputs, outputs, count=1):
        super().__init__()
        self.half = outputs // 2
        self.first = conv(inputs, outputs, 1, act=nn.SiLU)
        self.blocks = nn.ModuleList(residual(conv(self.half, self.half, act=nn.SiLU),
                                             conv(self.half, self.half, act=nn.SiLU))
                                    for _ in range(count))
        self.last = conv(outputs + count * self.half, outputs, 1, act=nn.SiLU)

    def forward(self, x):
        parts = list(self.first(x).chunk(2, 1))
        for block in self.blocks:
            parts.append(block(parts[-1]))
        return self.last(torch.cat(parts, 1))


class Sppf(nn.Module):
    def __init__(self, channels):
        super().__init__()
        self.first = conv(channels, channels // 2, 1, act=nn.SiLU)
        self.pool = nn.MaxPool2d(5, 1, 2)
        self.last = conv(channels * 2, channels, 1, act=nn.SiLU)

    def forward(self, x):
        x = self.first(x)
        a = self.pool(x)
        b = self.pool(a)
        return self.last(torch.cat([x, a, b, self.pool(b)], 1))


class DistanceHead(nn.Module):
    """Distances as expectations over bins, classes, decoding to boxes with grid constants."""

    def __init__(self, channels, rows, columns, bins=8, classes=3):
        super().__init__()
        self.bins = bins
        self.box = nn.Sequential(conv(channels, 32, act=nn.SiLU), nn.Conv2d(32, 4 * bins, 1))
        self.score = nn.Sequential(conv(channels, 32, act=nn.SiLU), nn.Conv2d(32, classes, 1))
        self.expect = nn.Conv2d(bins, 1, 1, bias=False)
        y, x = torch.meshgrid(torch.arange(rows) + 0.5, torch.arange(columns) + 0.5, indexing="ij")
        self.register_buffer("centres", torch.stack([x, y]).reshape(1, 2, -1))

    def forward(self, x):
        n = x.shape[0]
        both = torch.cat([self.box(x), self.score(x)], 1).view(n, 4 * self.bins + 3, -1)
        box, score = both.split((4 * self.bins, 3), 1)
        box = box.view(n, 4, self.bins, -1).transpose(2, 1).softmax(1)
        box = self.expect(box).view(n, 4, -1)
        low, high = box.chunk(2, 1)
        a, b = self.centres - low, self.centres + high
        return torch.cat((torch.cat(((a + b) / 2, b - a), 1) * 8, score.sigmoid()), 1)


class Yolo(nn.Module):
    def __init__(self):
        super().__init__()
        self.stem = nn.Sequential(conv(3, 16, 3, 2, act=nn.SiLU), conv(16, 32, 3, 2, act=nn.SiLU),
                                  Csp(32, 32), conv(32, 48, 3, 2, act=nn.SiLU), Csp(48, 48, 2))
        self.deep = nn.Sequential(conv(48, 64, 3, 2, act=nn.SiLU), Sppf(64))
        self.join = Csp(112, 48)
        self.head = DistanceHead(48, 12, 16)

    def forward(self, x):
        a = self.stem(x)
        b = F.interpolate(self.deep(a), scale_factor=2.0, mode="nearest")
        return self.head(self.join(torch.cat([b, a], 1)))


class YoloAnchors(nn.Module):
    """The five-dimensional head: [1, anchors, rows, columns, values]."""

    def __init__(self, rows=12, columns=16):
        super().__init__()
        self.body = nn.Sequential(conv(12, 16, 3, 2, act=nn.SiLU), conv(16, 32, 3, 2, act=nn.SiLU))
        self.head = nn.Conv2d(32, 3 * 16, 1)
        y, x = torch.meshgrid(torch.arange(rows), torch.arange(columns), indexing="ij")
        self.register_buffer("grid", torch.stack([x, y], 2).view(1, 1, rows, columns, 2).float())
        self.register_buffer("anchors", torch.rand(1, 3, 1, 1, 2) * 30)

    def forward(self, x):
        # Every second pixel of rows and columns as channels, with steps as slices.
        x = torch.cat([x[..., y::2, z::2] for z in (0, 1) for y in (0, 1)], 1)
        y = self.head(self.body(x))
        n, _, rows, columns = y.shape
        y = y.view(n, 3, 16, rows, columns).permute(0, 1, 3, 4, 2).contiguous()
        place = (y[..., 0:2].sigmoid() * 2 - 0.5 + self.grid) * 8
        size = (y[..., 2:4].sigmoid() * 2) ** 2 * self.anchors
        point = y[..., 5:15] * self.anchors.repeat(1, 1, 1, 1, 5)
        return torch.cat((place, size, y[..., 4:5].sigmoid(), point, y[..., 15:].sigmoid()), -1
                         ).view(n, -1, 16)


class Blaze(nn.Module):
    """Shortcuts with fewer channels, padded; asymmetric padding; boxes of two levels."""

    class Block(nn.Module):
        def __init__(self, inputs, outputs, stride):
            super().__init__()
            self.stride, self.more = stride, outputs - inputs
            self.body = nn.Sequential(nn.Conv2d(inputs, inputs, 3 if stride == 2 else 5, stride,
                                                0 if stride == 2 else 2, groups=inputs),
                                      nn.Conv2d(inputs, outputs, 1))

        def forward(self, x):
            y, short = x, x
            if self.stride == 2:
                y, short = F.pad(x, (0, 2, 0, 2)), F.max_pool2d(x, 2)
            if self.more:
                short = F.pad(short, (0, 0, 0, 0, 0, self.more))
            return F.relu(self.body(y) + short)

    def __init__(self):
        super().__init__()
        b = Blaze.Block
        self.first = Chain(lambda x: F.pad(x, (1, 2, 1, 2)), nn.Conv2d(3, 24, 5, 2), nn.ReLU(),
                           b(24, 24, 1), b(24, 28, 1), b(28, 32, 2), b(32, 36, 1), b(36, 42, 2))
        self.second = b(42, 48, 2)
        self.heads = nn.ModuleList([nn.Conv2d(42, 34, 1), nn.Conv2d(48, 102, 1)])

    def forward(self, x):
        a = self.first(x)
        y = torch.cat([anchors_last(h(f), 17) for h, f in zip(self.heads, (a, self.second(a)))], 1)
        return torch.clamp(y[..., :1], -100, 100).sigmoid(), y[..., 1:]


class Context(nn.Module):
    """Context module of a face detector, on levels that are joined to a size that is asked for."""

    def __init__(self):
        super().__init__()
        act = lambda: nn.LeakyReLU(0.1)
        self.low = conv(3, 24, 3, 4, act=act)
        self.high = conv(24, 32, 3, 2, act=act)
        self.lateral = nn.ModuleList([conv(24, 32, 1, act=act), conv(32, 32, 1, act=act)])
        self.a, self.b, self.c = conv(32, 16, act=None), conv(32, 8, act=act), conv(8, 8, act=None)
        self.d, self.e = conv(8, 8, act=act), conv(8, 8, act=None)
        self.head = nn.Conv2d(32, 8, 1)

    def forward(self, x):
        low = self.low(x)
        top = self.lateral[1](self.high(low))
        low = self.lateral[0](low)
        low = low + F.interpolate(top, size=[low.size(2), low.size(3)], mode="nearest")
        b = self.b(low)
        y = F.relu(torch.cat([self.a(low), self.c(b), self.e(self.d(b))], 1))
        return F.softmax(anchors_last(self.head(y), 4), -1)


class Heat(nn.Module):
    """Heat maps: an hourglass, transposed convolutions, peaks by pooling."""

    def __init__(self, depth=3):
        super().__init__()
        self.stem = nn.Sequential(nn.Conv2d(3, 16, 7, 2, 3), nn.ReLU())
        self.skips = nn.ModuleList(residual(conv(16, 16)) for _ in range(depth))
        self.downs = nn.ModuleList(residual(conv(16, 16)) for _ in range(depth))
        self.up = nn.Sequential(nn.ConvTranspose2d(16, 16, 4, 2, 1, bias=False), nn.BatchNorm2d(16),
                                nn.ReLU(), nn.ConvTranspose2d(16, 8, 3, 2, 1, 1, groups=4))
        self.out = nn.Conv2d(8, 5, 1)

    def forward(self, x):
        x, kept = self.stem(x), []
        for skip, down in zip(self.skips, self.downs):
            kept.append(skip(x))
            x = down(F.max_pool2d(x, 2, 2))
        for k in kept[::-1]:
            x = k + F.interpolate(x, scale_factor=2)
        heat = torch.sigmoid(self.out(self.up(x)))
        return heat, heat * (F.max_pool2d(heat, 3, 1, 1) == heat).float()


# ---- Classification ----

class Shuffle(nn.Module):
    """Half of the channels pass by, then both halves are shuffled."""

    def __init__(self, channels):
        super().__init__()
        half = channels // 2
        self.body = nn.Sequential(conv(half, half, 1), conv(half, half, 3, 1, half, None),
                                  conv(half, half, 1))

    def forward(self, x):
        a, b = x.chunk(2, 1)
        y = torch.cat([a, self.body(b)], 1)
        n, c, h, w = y.shape
        return y.view(n, 2, c // 2, h, w).transpose(1, 2).contiguous().view(n, c, h, w)


def ghost(inputs, outputs):
    return Calls(lambda self, x: (lambda y: torch.cat([y, self.cheap(y)], 1)[:, :outputs])(
        self.main(x)), main=conv(inputs, -(-outputs // 2), 1),
        cheap=conv(-(-outputs // 2), -(-outputs // 2), 3, 1, -(-outputs // 2)))


def fire(inputs, inner, outputs):
    return Calls(lambda self, x: (lambda y: torch.cat([F.relu(self.a(y)), F.relu(self.b(y))], 1))(
        F.relu(self.s(x))), s=nn.Conv2d(inputs, inner, 1), a=nn.Conv2d(inner, outputs, 1),
        b=nn.Conv2d(inner, outputs, 3, 1, 1))


def inception(inputs):
    return Calls(lambda self, x: torch.cat([self.a(x), self.b(x), self.c(x)], 1),
                 a=conv(inputs, 16, 1),
                 c=nn.Sequential(nn.AvgPool2d(3, 1, 1, count_include_pad=False),
                                 conv(inputs, 8, 1)),
                 b=nn.Sequential(conv(inputs, 8, 1), *[Tall(8, k) for k in ((1, 7), (7, 1))]))


class Tall(nn.Sequential):
    def __init__(self, channels, kernel):
        super().__init__(nn.Conv2d(channels, channels, kernel, 1, (kernel[0] // 2, kernel[1] // 2),
                                   bias=False), nn.BatchNorm2d(channels, eps=1e-3), nn.ReLU())


class Dense(nn.Module):
    """Every layer reads all before it; normalisation and activation come first."""

    def __init__(self, channels=16, count=3, growth=8):
        super().__init__()
        self.layers = nn.ModuleList(nn.Sequential(
            nn.BatchNorm2d(channels + i * growth), nn.ReLU(),
            nn.Conv2d(channels + i * growth, growth, 3, 1, 1, bias=False)) for i in range(count))

    def forward(self, x):
        features = [x]
        for layer in self.layers:
            features.append(layer(torch.cat(features, 1)))
        return torch.cat(features, 1)


def attention_of_space(channels):
    """Channels by means and maxima through one perceptron, then places by mean and maximum."""
    def forward(self, x):
        a = self.dense(F.adaptive_avg_pool2d(x, 1)) + self.dense(F.adaptive_max_pool2d(x, 1))
        x = x * torch.sigmoid(a)
        both = torch.cat([x.mean(1, keepdim=True), x.max(1, keepdim=True)[0]], 1)
        return x * torch.sigmoid(self.place(both))
    return Calls(forward, place=nn.Conv2d(2, 1, 7, 1, 3, bias=False), dense=nn.Sequential(
        nn.Conv2d(channels, 4, 1, bias=False), nn.ReLU(), nn.Conv2d(4, channels, 1, bias=False)))


def attention_of_neighbours():
    """Channels by a convolution along the vector of their means."""
    def forward(self, x):
        y = F.adaptive_avg_pool2d(x, 1).squeeze(-1).transpose(-1, -2)
        y = self.line(y).transpose(-1, -2).unsqueeze(-1)
        return x * y.sigmoid().expand_as(x)
    return Calls(forward, line=nn.Conv1d(1, 1, 3, padding=1, bias=False))


def attention_of_axes(channels):
    """Rows and columns by means along the other axis."""
    def forward(self, x):
        _, _, h, w = x.shape
        a, b = x.mean(3, keepdim=True), x.mean(2, keepdim=True).permute(0, 1, 3, 2)
        y = self.both(torch.cat([a, b], 2))
        a, b = torch.split(y, [h, w], 2)
        return x * self.rows(a).sigmoid() * self.columns(b.permute(0, 1, 3, 2)).sigmoid()
    return Calls(forward, both=conv(channels, 8, 1, act=nn.Hardswish),
                 rows=nn.Conv2d(8, channels, 1), columns=nn.Conv2d(8, channels, 1))


def fused_kernels(channels):
    """Two kernels, weighed by a softmax over the pair for every channel."""
    def forward(self, x):
        a, b = self.a(x), self.b(x)
        gate = self.gate((a + b).mean((2, 3), keepdim=True)).view(x.shape[0], 2, channels, 1, 1)
        gate = gate.softmax(1)
        return a * gate[:, 0] + b * gate[:, 1]
    return Calls(forward, a=conv(channels, channels), b=conv(channels, channels, dilation=2),
                 gate=nn.Sequential(nn.Conv2d(channels, 8, 1), nn.ReLU(),
                                    nn.Conv2d(8, 2 * channels, 1)))


class Next(nn.Module):
    """Wide depthwise kernel, normalisation over channels, two dense layers, own scale."""

    def __init__(self, channels):
        super().__init__()
        self.depthwise = nn.Conv2d(channels, channels, 7, 1, 3, groups=channels)
        self.norm = nn.LayerNorm(channels)
        self.body = nn.Sequential(nn.Linear(channels, 2 * channels), nn.GELU(),
                                  nn.Linear(2 * channels, channels))
        self.scale = nn.Parameter(torch.rand(channels))

    def forward(self, x):
        y = self.depthwise(x).permute(0, 2, 3, 1)
        return x + (self.scale * self.body(self.norm(y))).permute(0, 3, 1, 2)


class Attention(nn.Module):
    def __init__(self, width, heads):
        super().__init__()
        self.heads, self.size = heads, width // heads
        self.norms = nn.ModuleList([nn.LayerNorm(width), nn.LayerNorm(width)])
        self.qkv, self.out = nn.Linear(width, 3 * width), nn.Linear(width, width)
        self.mlp = nn.Sequential(nn.Linear(width, 2 * width), nn.GELU(),
                                 nn.Linear(2 * width, width))

    def forward(self, x):
        n, count, width = x.shape
        q, k, v = self.qkv(self.norms[0](x)).reshape(n, count, 3, self.heads, self.size).permute(
            2, 0, 3, 1, 4).unbind(0)
        weights = ((q @ k.transpose(-2, -1)) / math.sqrt(self.size)).softmax(-1)
        x = x + self.out((weights @ v).transpose(1, 2).reshape(n, count, width))
        return x + self.mlp(self.norms[1](x))


class Transformer(nn.Module):
    """Patches, a class token, positions, attention."""

    def __init__(self, width=32):
        super().__init__()
        self.patches = nn.Conv2d(3, width, 8, 8)
        self.token = nn.Parameter(torch.randn(1, 1, width))
        self.places = nn.Parameter(torch.randn(1, 17, width))
        self.blocks = nn.Sequential(Attention(width, 4), Attention(width, 2))
        self.last = nn.Sequential(nn.LayerNorm(width), nn.Linear(width, 10))

    def forward(self, x):
        x = self.patches(x).flatten(2).transpose(1, 2)
        x = torch.cat([self.token.expand(x.shape[0], -1, -1), x], 1) + self.places
        return self.last(self.blocks(x)[:, 0])


def non_local(channels):
    def forward(self, x):
        n, c, h, w = x.shape
        a, b, v = (p(x).flatten(2) for p in (self.a, self.b, self.v))
        y = torch.bmm(v, F.softmax(torch.bmm(a.transpose(1, 2), b), -1).transpose(1, 2))
        return x + self.gamma * y.view(n, c, h, w)
    return Calls(forward, a=nn.Conv2d(channels, 4, 1), b=nn.Conv2d(channels, 4, 1),
                 v=nn.Conv2d(channels, channels, 1), gamma=nn.Conv2d(1, 1, 1).bias)


# ---- Pictures, segmentation, recognition ----

def transfer():
    """Style transfer: reflected padding, instance normalisation, enlargement before convolution."""
    def block(a, b, kernel, stride=1, up=0):
        return ([nn.Upsample(scale_factor=2, mode="nearest")] if up else []) + [
            nn.ReflectionPad2d(kernel // 2), nn.Conv2d(a, b, kernel, stride),
            nn.InstanceNorm2d(b, affine=True)]
    return Chain(*block(3, 8, 9), nn.ReLU(), *block(8, 16, 3, 2), nn.ReLU(),
                 residual(*block(16, 16, 3), nn.ReLU(), *block(16, 16, 3)), *block(16, 8, 3, 1, 1),
                 nn.ReLU(), nn.ReplicationPad2d(4), nn.Conv2d(8, 3, 9),
                 lambda x: x.tanh() * 127 + 128)


def super_resolution():
    """Blocks of pixels added to the picture enlarged by cubic interpolation."""
    body = nn.Sequential(nn.Conv2d(1, 16, 5, 1, 2), nn.Tanh(), nn.Conv2d(16, 9, 3, 1, 1),
                         nn.PixelShuffle(3))
    return Calls(lambda self, x: self.body(x) + F.interpolate(x, scale_factor=3, mode="bicubic"),
                 body=body)


class Atrous(nn.Module):
    """Dilated branches and the mean of the picture, spread over all places again."""

    def __init__(self):
        super().__init__()
        self.stem = nn.Sequential(conv(3, 16, 3, 2), inverted(16, 24, 2, 2),
                                  squeeze(24, 8, nn.Sigmoid))
        self.branches = nn.ModuleList([conv(24, 16, 1), conv(24, 16, dilation=6),
                                       conv(24, 16, dilation=12)])
        self.pooled = nn.Sequential(nn.AdaptiveAvgPool2d(1), nn.Conv2d(24, 16, 1), nn.ReLU())
        self.last = nn.Sequential(conv(64, 16, 1), nn.Conv2d(16, 4, 1))

    def forward(self, x):
        size = x.shape[-2:]
        x = self.stem(x)
        mean = F.interpolate(self.pooled(x), x.shape[-2:], mode="bilinear", align_corners=False)
        y = self.last(torch.cat([b(x) for b in self.branches] + [mean], 1))
        return F.interpolate(y, size=size, mode="bilinear", align_corners=True).argmax(1).float(), y


class Parsing(nn.Module):
    """Two paths, attention by means, sizes that do not divide."""

    def __init__(self):
        super().__init__()
        self.space = nn.Sequential(conv(3, 16, 7, 2), conv(16, 24, 3, 2))
        self.context = nn.Sequential(conv(3, 16, 3, 4), conv(16, 24, 3, 2), nn.ELU())
        self.gate = nn.Sequential(conv(24, 24, 1, act=None), nn.Sigmoid())
        self.join = conv(48, 32, 1, act=nn.Mish)

    def forward(self, x):
        a, b = self.space(x), self.context(x)
        b = b * self.gate(F.avg_pool2d(b, b.shape[2:])) + b.mean((2, 3), keepdim=True)
        b = F.interpolate(b, a.shape[2:], mode="bilinear", align_corners=False)
        return F.log_softmax(self.join(torch.cat([a, b], 1)), 1)


def recognition():
    """Residual blocks that begin with the normalisation, PReLU, a dense layer and its own."""
    def block(a, b, stride):
        body = nn.Sequential(nn.BatchNorm2d(a), nn.Conv2d(a, b, 3, 1, 1, bias=False),
                             nn.BatchNorm2d(b), nn.PReLU(b),
                             nn.Conv2d(b, b, 3, stride, 1, bias=False), nn.BatchNorm2d(b))
        short = conv(a, b, 1, stride, act=None) if stride > 1 or a != b else nn.Identity()
        return Calls(lambda self, x: self.body(x) + self.short(x), body=body, short=short)
    return Chain(lambda x: (x - 127.5) / 128, conv(3, 16, act=lambda: nn.PReLU(16)),
                 block(16, 16, 2), block(16, 32, 2), block(32, 32, 1), nn.BatchNorm2d(32),
                 nn.Dropout(0.4), nn.Flatten(), nn.Linear(32 * 49, 64), nn.BatchNorm1d(64),
                 lambda x: x / torch.norm(x, 2, 1, True).clamp(min=1e-12))


def pose_angles():
    """Three heads over bins, expectations of softmax as angles."""
    def forward(self, x):
        y = self.body(x).flatten(1)
        bins = torch.arange(66, dtype=torch.float32)
        return torch.stack([(F.softmax(h(y), 1) * bins).sum(1) * 3 - 99 for h in self.heads], 1)
    return Calls(forward, body=nn.Sequential(conv(3, 16, 3, 2), separable(16, 32, 2),
                                             nn.AvgPool2d(8)),
                 heads=nn.ModuleList(nn.Linear(32 * 4, 66) for _ in range(3)))


def sequence():
    """Text line: pooling of rows alone, then one vector a column."""
    return Chain(conv(1, 16), nn.MaxPool2d((2, 1)), conv(16, 24),
                 nn.MaxPool2d((2, 2), (2, 1), (0, 1)), nn.Conv2d(24, 24, (4, 2)),
                 lambda x: x.squeeze(2).permute(2, 0, 1),
                 nn.Linear(24, 11), lambda x: x.log_softmax(2))


def elementwise():
    """Rarer functions, constants of every shape that broadcasts."""
    row, column = torch.linspace(0.5, 1.5, 12), torch.linspace(0.2, 1, 9).view(9, 1)
    return Chain(nn.Conv2d(3, 8, 3, 1, 1), lambda x: F.softplus(x) * row + column,
                 nn.GroupNorm(2, 8),
                 lambda x: x.abs().sqrt() + x.exp().clamp(max=5) - F.hardsigmoid(x) * 2 ** (x / 4),
                 nn.SELU(), lambda x: torch.maximum(x, torch.tensor(-0.5)) / (x * x + 1),
                 lambda x: F.pad(x, (2, -1, 0, 1), value=0.25) - x.mean() + x.amin((2, 3), True),
                 nn.CELU(0.7), nn.Softsign(), lambda x: torch.min(x, -x) ** 3,
                 lambda x: 1 - torch.log(2 - x), nn.GLU(1), lambda x: x.sum(1, keepdim=True))


def in_front(*layers, channels=16, **options):
    """Layers behind one convolution."""
    return lambda: nn.Sequential(conv(3, channels, **options), *[layer() for layer in layers])


def fires():
    pool = lambda: nn.MaxPool2d(3, 2, ceil_mode=True)
    return nn.Sequential(nn.Conv2d(3, 16, 3, 2), nn.ReLU(), pool(), fire(16, 4, 12), pool(),
                         fire(24, 4, 16), nn.Conv2d(32, 10, 1), nn.ReLU(),
                         nn.AdaptiveAvgPool2d((1, 1)), nn.Flatten(), nn.Softmax(1))


def plain():
    return nn.Sequential(conv(3, 8), nn.MaxPool2d(2), conv(8, 16), nn.MaxPool2d(2),
                         nn.AdaptiveAvgPool2d((2, 2)), nn.Flatten(), nn.Linear(64, 32), nn.ReLU(),
                         nn.Dropout(), nn.Linear(32, 5))


CASES = [
    ("yolo", Yolo, (1, 3, 96, 128), 12),
    ("yolo-anchors", YoloAnchors, (1, 3, 96, 128), 11),
    ("blaze", Blaze, (1, 3, 64, 64), 11),
    ("context", Context, (1, 3, 64, 96), 11),
    ("heat", Heat, (1, 3, 64, 64), 13),
    ("shuffle", in_front(lambda: Shuffle(24), lambda: Shuffle(24), channels=24, stride=2),
     (1, 3, 32, 40), 9),
    ("ghost", lambda: nn.Sequential(ghost(3, 15), ghost(15, 20)), (1, 3, 20, 24), 11),
    ("squeeze", fires, (1, 3, 61, 47), 9),
    ("inception", in_front(lambda: inception(16), lambda: inception(32), stride=2),
     (1, 3, 48, 64), 11),
    ("dense", lambda: nn.Sequential(nn.Conv2d(3, 16, 3), Dense(), nn.AvgPool2d(2), Dense(40)),
     (1, 3, 20, 24), 10),
    ("plain", plain, (1, 3, 16, 16), 9),
    ("attention-space", in_front(lambda: attention_of_space(16)), (1, 3, 16, 20), 13),
    ("attention-line", in_front(attention_of_neighbours), (1, 3, 16, 20), 11),
    ("attention-axes", in_front(lambda: attention_of_axes(16)), (1, 3, 16, 20), 13),
    ("selective", in_front(lambda: fused_kernels(16)), (1, 3, 16, 20), 13),
    ("next", lambda: nn.Sequential(nn.Conv2d(3, 16, 4, 4), Next(16), Next(16)), (1, 3, 48, 64), 17),
    ("next-11", lambda: nn.Sequential(nn.Conv2d(3, 16, 4, 4), Next(16)), (1, 3, 48, 64), 11),
    ("transformer", Transformer, (1, 3, 32, 32), 14),
    ("non-local", in_front(lambda: non_local(16)), (1, 3, 10, 12), 11),
    ("transfer", transfer, (1, 3, 40, 48), 11),
    ("super-resolution", super_resolution, (1, 1, 24, 32), 11),
    ("atrous", Atrous, (1, 3, 96, 128), 12),
    ("parsing", Parsing, (1, 3, 90, 122), 14),
    ("recognition", recognition, (1, 3, 28, 28), 11),
    ("pose", pose_angles, (1, 3, 64, 64), 12),
    ("sequence", sequence, (1, 1, 16, 40), 13),
    ("elementwise", elementwise, (1, 3, 9, 12), 14),
]
