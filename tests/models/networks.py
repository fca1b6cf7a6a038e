"""Published networks of face and image processing as torch modules, with seeded weights.

CASES: name, function that makes the module, shape of the input, opset of the export.
"""

import torch
import torch.nn.functional as F
from torch import nn


def seeded(make, shape, seed):
    """A module with weights of its own, whose normalisations carry the statistics of a random
    input, each a little off, so that activations keep their size through any depth."""
    torch.manual_seed(seed)
    module = make()
    for part in module.modules():
        if isinstance(part, (nn.Conv2d, nn.ConvTranspose2d, nn.Linear)):
            nn.init.kaiming_normal_(part.weight)
            if part.bias is not None:
                nn.init.normal_(part.bias, std=0.1)
        elif isinstance(part, (nn.BatchNorm1d, nn.BatchNorm2d)):
            part.momentum = 1.0
            nn.init.uniform_(part.weight, 0.6, 1.4)
            nn.init.normal_(part.bias, std=0.2)
        elif isinstance(part, nn.PReLU):
            nn.init.uniform_(part.weight, 0.0, 0.5)
    with torch.no_grad():
        module.train()(torch.randn(4, *shape[1:]))
        for name, value in module.named_buffers():
            if name.endswith("running_var"):
                value *= torch.empty_like(value).uniform_(0.8, 1.25)
            elif name.endswith("running_mean"):
                value += torch.empty_like(value).normal_(std=0.1)
    return module.eval()


def conv(inputs, outputs, kernel=3, stride=1, groups=1, act=nn.ReLU, pad=None, dilation=1):
    """Convolution, normalisation, activation."""
    if pad is None:
        pad = dilation * (kernel - 1) // 2
    parts = [nn.Conv2d(inputs, outputs, kernel, stride, pad, dilation, groups, bias=False),
             nn.BatchNorm2d(outputs)]
    return nn.Sequential(*parts, *([act()] if act else []))


def separable(inputs, outputs, stride=1):
    return nn.Sequential(conv(inputs, inputs, 3, stride, inputs), conv(inputs, outputs, 1))


class Calls(nn.Module):
    """A function of modules: Calls(f, a=..., b=...) computes f(self, x)."""

    def __init__(self, function, **parts):
        super().__init__()
        self.function = function
        for name, part in parts.items():
            setattr(self, name, part)

    def forward(self, x):
        return self.function(self, x)


def residual(*parts):
    return Calls(lambda self, x: x + self.body(x), body=nn.Sequential(*parts))


def anchors_last(x, values):
    """[1, k * values, rows, columns] as [1, rows * columns * k, values]."""
    return x.permute(0, 2, 3, 1).reshape(x.shape[0], -1, values)


# ---- SSD face detector, 320 x 240, plain and with a receptive-field block ----

class Dilated(nn.Module):
    """Branches of growing dilation, joined, added to a shortcut."""

    def __init__(self, channels):
        super().__init__()
        inner = channels // 8
        self.branches = nn.ModuleList([
            nn.Sequential(conv(channels, inner, 1, act=None), conv(inner, 2 * inner),
                          conv(2 * inner, 2 * inner, dilation=2, act=None)),
            nn.Sequential(conv(channels, inner, 1, act=None), conv(inner, 2 * inner),
                          conv(2 * inner, 2 * inner, dilation=3, act=None)),
            nn.Sequential(conv(channels, inner, 1, act=None), conv(inner, inner * 3 // 2),
                          conv(inner * 3 // 2, 2 * inner), conv(2 * inner, 2 * inner, dilation=5,
                                                               act=None))])
        self.join = conv(6 * inner, channels, 1, act=None)
        self.shortcut = conv(channels, channels, 1, act=None)

    def forward(self, x):
        joined = self.join(torch.cat([branch(x) for branch in self.branches], 1))
        return F.relu(joined * 0.8 + self.shortcut(x))


def plain_head(inputs, outputs):
    return nn.Sequential(nn.Conv2d(inputs, inputs, 3, 1, 1, groups=inputs), nn.ReLU(),
                         nn.Conv2d(inputs, outputs, 1))


class Ssd(nn.Module):
    def __init__(self, dilated=False):
        super().__init__()
        widths = [16, 32, 32, 32, 64, 64, 64, 64]
        strides = [1, 2, 1, 2, 1, 1, 1]
        first = [conv(3, 16, 3, 2)] + [separable(a, b, s) for a, b, s in
                                       zip(widths, widths[1:], strides)]
        if dilated:
            first[-1] = Dilated(64)
        extra = nn.Sequential(nn.Conv2d(256, 64, 1), nn.ReLU(),
                              nn.Conv2d(64, 64, 3, 2, 1, groups=64), nn.ReLU(),
                              nn.Conv2d(64, 256, 1), nn.ReLU())
        self.stages = nn.ModuleList([
            nn.Sequential(*first),
            nn.Sequential(separable(64, 128, 2), separable(128, 128), separable(128, 128)),
            nn.Sequential(separable(128, 256, 2), separable(256, 256)), extra])
        heads = [(64, 3), (128, 2), (256, 2), (256, 3)]
        last = [lambda c, n: nn.Conv2d(c, n, 3, 1, 1)]
        make = [plain_head] * 3 + last
        self.scores = nn.ModuleList(m(c, 2 * k) for m, (c, k) in zip(make, heads))
        self.boxes = nn.ModuleList(m(c, 4 * k) for m, (c, k) in zip(make, heads))

    def forward(self, x):
        scores, boxes = [], []
        for stage, score, box in zip(self.stages, self.scores, self.boxes):
            x = stage(x)
            scores.append(anchors_last(score(x), 2))
            boxes.append(anchors_last(box(x), 4))
        return F.softmax(torch.cat(scores, 1), 2), torch.cat(boxes, 1)


# ---- Landmarks ----

def inverted(inputs, outputs, stride, expand, act=nn.ReLU, add=None):
    """Expand, depthwise, project; added to its input where the shapes agree."""
    inner = inputs * expand
    parts = [conv(inputs, inner, 1, act=act)] if expand > 1 else []
    parts += [conv(inner, inner, 3, stride, inner, act), conv(inner, outputs, 1, act=None)]
    add = stride == 1 and inputs == outputs if add is None else add
    return residual(*parts) if add else nn.Sequential(*parts)


class Pfld(nn.Module):
    """98 landmarks of a face of 112 x 112 from three sizes."""

    def __init__(self):
        super().__init__()
        self.first = nn.Sequential(
            conv(3, 64, 3, 2), conv(64, 64), inverted(64, 64, 2, 2),
            *[inverted(64, 64, 1, 2) for _ in range(4)], inverted(64, 128, 2, 2),
            inverted(128, 128, 1, 4, add=False), *[inverted(128, 128, 1, 4) for _ in range(5)],
            inverted(128, 16, 1, 2))
        self.second = conv(16, 32, 3, 2)
        self.third = nn.Sequential(nn.Conv2d(32, 128, 7), nn.ReLU())
        self.pools = nn.ModuleList([nn.AvgPool2d(14), nn.AvgPool2d(7)])
        self.dense = nn.Linear(176, 196)

    def forward(self, x):
        a = self.first(x)
        b = self.second(a)
        sizes = [self.pools[0](a), self.pools[1](b), self.third(b)]
        return self.dense(torch.cat([s.view(s.size(0), -1) for s in sizes], 1))


# ---- Classification ----

def mobilenet_v2():
    layers, inputs = [conv(3, 32, 3, 2, act=nn.ReLU6)], 32
    for expand, outputs, count, stride in (
            (1, 16, 1, 1), (6, 24, 2, 2), (6, 32, 3, 2), (6, 64, 4, 2), (6, 96, 3, 1),
            (6, 160, 3, 2), (6, 320, 1, 1)):
        for i in range(count):
            layers.append(inverted(inputs, outputs, stride if i == 0 else 1, expand, nn.ReLU6))
            inputs = outputs
    return nn.Sequential(*layers, conv(320, 1280, 1, act=nn.ReLU6), nn.AdaptiveAvgPool2d(1),
                         nn.Flatten(), nn.Dropout(0.2), nn.Linear(1280, 1000))


def squeeze(channels, inner, gate=nn.Hardsigmoid):
    """Squeeze and excite: every channel times a number that the means of all channels give."""
    body = nn.Sequential(nn.AdaptiveAvgPool2d(1), nn.Conv2d(channels, inner, 1), nn.ReLU(),
                         nn.Conv2d(inner, channels, 1), gate())
    return Calls(lambda self, x: x * self.body(x), body=body)


def mobilenet_v3_small():
    layers, inputs = [conv(3, 16, 3, 2, act=nn.Hardswish)], 16
    for kernel, inner, outputs, excite, act, stride in (
            (3, 16, 16, 1, nn.ReLU, 2), (3, 72, 24, 0, nn.ReLU, 2), (3, 88, 24, 0, nn.ReLU, 1),
            (5, 96, 40, 1, nn.Hardswish, 2), (5, 240, 40, 1, nn.Hardswish, 1),
            (5, 240, 40, 1, nn.Hardswish, 1), (5, 120, 48, 1, nn.Hardswish, 1),
            (5, 144, 48, 1, nn.Hardswish, 1), (5, 288, 96, 1, nn.Hardswish, 2),
            (5, 576, 96, 1, nn.Hardswish, 1), (5, 576, 96, 1, nn.Hardswish, 1)):
        parts = [conv(inputs, inner, 1, act=act)] if inner != inputs else []
        parts.append(conv(inner, inner, kernel, stride, inner, act))
        parts += [squeeze(inner, -(-inner // 4 // 8) * 8)] if excite else []
        parts.append(conv(inner, outputs, 1, act=None))
        same = stride == 1 and inputs == outputs
        layers.append(residual(*parts) if same else nn.Sequential(*parts))
        inputs = outputs
    return nn.Sequential(*layers, conv(96, 576, 1, act=nn.Hardswish), nn.AdaptiveAvgPool2d(1),
                         nn.Flatten(), nn.Linear(576, 1024), nn.Hardswish(), nn.Dropout(0.2),
                         nn.Linear(1024, 1000))


def basic_block(inputs, outputs, stride):
    body = nn.Sequential(conv(inputs, outputs, 3, stride), conv(outputs, outputs, act=None))
    short = nn.Sequential() if stride == 1 and inputs == outputs else \
        conv(inputs, outputs, 1, stride, act=None)
    return Calls(lambda self, x: F.relu(self.body(x) + self.short(x)), body=body, short=short)


def resnet18():
    widths = [64, 64, 128, 256, 512]
    blocks = [block for i, (a, b) in enumerate(zip(widths, widths[1:]))
              for block in (basic_block(a, b, 2 if i else 1), basic_block(b, b, 1))]
    return nn.Sequential(conv(3, 64, 7, 2), nn.MaxPool2d(3, 2, 1), *blocks, nn.AdaptiveAvgPool2d(1),
                         nn.Flatten(), nn.Linear(512, 1000))


# ---- The three networks of a cascaded face detector ----

def cascade(convolutions, pools):
    """Valid convolutions with PReLU, each with a pooling behind it or None."""
    parts = []
    for (inputs, outputs, kernel), pool in zip(convolutions, pools):
        parts += [nn.Conv2d(inputs, outputs, kernel), nn.PReLU(outputs)]
        parts += [nn.MaxPool2d(pool, 2, ceil_mode=True)] if pool else []
    return parts


class Heads(nn.Module):
    """A body and several heads on it; the score is a probability."""

    def __init__(self, body, **heads):
        super().__init__()
        self.body, self.heads = body, nn.ModuleDict(heads)

    def forward(self, x):
        y = self.body(x)
        return tuple(F.softmax(head(y), 1) if name == "score" else head(y)
                     for name, head in self.heads.items())


def proposal():
    return Heads(body=nn.Sequential(*cascade([(3, 10, 3), (10, 16, 3), (16, 32, 3)], [2, 0, 0])),
                 score=nn.Conv2d(32, 2, 1), box=nn.Conv2d(32, 4, 1))


class Columns(nn.Module):
    """Columns before rows before channels, as one vector."""

    def forward(self, x):
        return x.permute(0, 3, 2, 1).contiguous().view(x.shape[0], -1)


def refinement():
    body = cascade([(3, 28, 3), (28, 48, 3), (48, 64, 2)], [3, 3, 0])
    return Heads(body=nn.Sequential(*body, Columns(), nn.Linear(576, 128), nn.PReLU(128)),
                 score=nn.Linear(128, 2), box=nn.Linear(128, 4))


def output_net():
    body = cascade([(3, 32, 3), (32, 64, 3), (64, 64, 3), (64, 128, 2)], [3, 3, 2, 0])
    return Heads(body=nn.Sequential(*body, Columns(), nn.Linear(1152, 256), nn.Dropout(0.25),
                                    nn.PReLU(256)),
                 score=nn.Linear(256, 2), box=nn.Linear(256, 4), points=nn.Linear(256, 10))


# ---- Segmentation, a detector without anchors, recognition ----

class UNet(nn.Module):
    def __init__(self):
        super().__init__()
        self.down = nn.ModuleList(nn.Sequential(conv(a, b), conv(b, b)) for a, b in
                                  ((3, 16), (16, 32), (32, 64)))
        self.up = nn.ConvTranspose2d(64, 32, 2, 2)
        self.right = nn.ModuleList([nn.Sequential(conv(64, 32), conv(32, 32)),
                                    nn.Sequential(conv(48, 16), conv(16, 16))])
        self.last = nn.Conv2d(16, 2, 1)

    def forward(self, x):
        a = self.down[0](x)
        b = self.down[1](F.max_pool2d(a, 2))
        y = self.up(self.down[2](F.max_pool2d(b, 2)))
        y = self.right[0](torch.cat([b, y], 1))
        y = F.interpolate(y, scale_factor=2, mode="bilinear", align_corners=False)
        return torch.sigmoid(self.last(self.right[1](torch.cat([a, y], 1))))


class Pyramid(nn.Module):
    """Face detector without anchors: scores, boxes and five points at every place of three
    levels, whose features are joined from the coarsest down."""

    def __init__(self, columns=256, rows=192):
        super().__init__()
        self.stages = nn.ModuleList([
            nn.Sequential(conv(3, 16, 3, 2), separable(16, 32, 2), separable(32, 64, 2)),
            nn.Sequential(separable(64, 96, 2), separable(96, 96)), separable(96, 128, 2)])
        self.lateral = nn.ModuleList(conv(c, 32, 1) for c in (64, 96, 128))
        self.smooth = nn.ModuleList(conv(32, 32, act=nn.LeakyReLU) for _ in range(3))
        self.heads = nn.ModuleList(nn.Conv2d(32, 16, 3, 1, 1) for _ in range(3))
        for i, step in enumerate((8, 16, 32)):
            y, x = torch.meshgrid(torch.arange(rows // step), torch.arange(columns // step),
                                  indexing="ij")
            self.register_buffer(f"centres{i}", ((torch.stack([x, y], -1).reshape(1, -1, 2) + 0.5)
                                                 * step).float())

    def forward(self, x):
        features = []
        for stage, lateral in zip(self.stages, self.lateral):
            x = stage(x)
            features.append(lateral(x))
        for i in (1, 0):
            features[i] = features[i] + F.interpolate(features[i + 1], scale_factor=2)
        scores, boxes, points = [], [], []
        for i, step in enumerate((8, 16, 32)):
            y = self.heads[i](self.smooth[i](features[i]))
            score, side, point = torch.split(y, [2, 4, 10], 1)
            centre = getattr(self, f"centres{i}")
            side = F.relu(anchors_last(side, 4)) * step
            scores.append(anchors_last(torch.sigmoid(score), 2))
            boxes.append(torch.cat([centre - side[..., :2], centre + side[..., 2:]], -1))
            points.append(anchors_last(point, 10) * step + centre.repeat(1, 1, 5))
        return torch.cat(scores, 1), torch.cat(boxes, 1), torch.cat(points, 1)


def mobile_face_net():
    def prelu_of(channels):
        return lambda: nn.PReLU(channels)

    def block(inputs, outputs, stride, inner):
        body = [conv(inputs, inner, 1, act=prelu_of(inner)),
                conv(inner, inner, 3, stride, inner, prelu_of(inner)),
                conv(inner, outputs, 1, act=None)]
        return residual(*body) if stride == 1 and inputs == outputs else nn.Sequential(*body)

    layers = [conv(3, 64, 3, 2, act=prelu_of(64)), conv(64, 64, 3, 1, 64, prelu_of(64))]
    layers += [block(64, 64, 2, 128)] + [block(64, 64, 1, 128) for _ in range(4)]
    layers += [block(64, 128, 2, 256)] + [block(128, 128, 1, 256) for _ in range(6)]
    layers += [block(128, 128, 2, 512)] + [block(128, 128, 1, 256) for _ in range(2)]
    layers += [conv(128, 512, 1, act=prelu_of(512)), conv(512, 512, 7, 1, 512, None, pad=0),
               nn.Conv2d(512, 128, 1, bias=False), nn.Flatten(), nn.BatchNorm1d(128)]
    return Calls(lambda self, x: F.normalize(self.body(x)), body=nn.Sequential(*layers))


CASES = [
    ("ssd", Ssd, (1, 3, 240, 320), 9),
    ("ssd-dilated", lambda: Ssd(True), (1, 3, 240, 320), 11),
    ("pfld", Pfld, (1, 3, 112, 112), 11),
    ("mobilenet-v2", mobilenet_v2, (1, 3, 224, 224), 10),
    ("mobilenet-v3-small", mobilenet_v3_small, (1, 3, 224, 224), 13),
    ("resnet-18", resnet18, (1, 3, 224, 224), 12),
    ("mtcnn-p", proposal, (1, 3, 90, 121), 11),
    ("mtcnn-r", refinement, (1, 3, 24, 24), 11),
    ("mtcnn-o", output_net, (1, 3, 48, 48), 11),
    ("u-net", UNet, (1, 3, 96, 128), 13),
    ("pyramid", Pyramid, (1, 3, 192, 256), 14),
    ("mobile-face-net", mobile_face_net, (1, 3, 112, 112), 17),
]
