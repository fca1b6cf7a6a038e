"""The two networks: a face detector for 320 x 240 pictures and a landmark network for 112 x 112
crops. Both take RGB, (value - 127) / 128, and are made of convolutions and ReLU alone once
batch normalisation is folded."""
import numpy as np
import torch
from torch import nn

import data

STRIDES = (8, 16, 32, 64)
MIN_SIZES = ((10, 16, 24), (32, 48), (64, 96), (128, 192, 256))
VARIANCES = (0.1, 0.2)
MEAN, SCALE = 127.0, 1.0 / 128.0
CROP_SCALE = 1.25  # of the landmark network's crop: times the larger side of the box


def priors(width=data.WIDTH, height=data.HEIGHT):
    """Prior boxes as the library makes them: N x 4, centre and size as fractions of the input."""
    boxes = []
    for stride, sizes in zip(STRIDES, MIN_SIZES):
        columns, rows = -(-width // stride), -(-height // stride)
        for y in range(rows):
            for x in range(columns):
                boxes += [((x + 0.5) / columns, (y + 0.5) / rows, size / width, size / height)
                          for size in sizes]
    return np.clip(np.array(boxes, np.float32), 0, 1)


def plain(inputs, outputs, kernel=3, stride=1, groups=1):
    """Without normalisation: where it costs more time than it saves in training."""
    return nn.Sequential(nn.Conv2d(inputs, outputs, kernel, stride, kernel // 2, groups=groups),
                         nn.ReLU(inplace=True))


def convolution(inputs, outputs, kernel=3, stride=1, groups=1, relu=True, padding=None):
    padding = kernel // 2 if padding is None else padding
    layers = [nn.Conv2d(inputs, outputs, kernel, stride, padding, groups=groups, bias=False),
              nn.BatchNorm2d(outputs)]
    return nn.Sequential(*layers, *([nn.ReLU(inplace=True)] if relu else []))


def separable(inputs, outputs, stride=1):
    """Depthwise, then pointwise with ReLU."""
    return nn.Sequential(nn.Conv2d(inputs, inputs, 3, stride, 1, groups=inputs, bias=False),
                         convolution(inputs, outputs, 1))


def head(inputs, outputs):
    return nn.Sequential(plain(inputs, inputs, 3, 1, inputs), nn.Conv2d(inputs, outputs, 1))


class Detector(nn.Module):
    """Scores (batch, 4420, 2: background, face; before softmax) and offsets (batch, 4420, 4)."""

    def __init__(self):
        super().__init__()
        self.levels = nn.ModuleList([
            nn.Sequential(plain(3, 16, 3, 2), separable(16, 32, 2), separable(32, 64, 2),
                          separable(64, 64), separable(64, 64), separable(64, 64)),
            nn.Sequential(separable(64, 128, 2), separable(128, 128), separable(128, 128)),
            nn.Sequential(separable(128, 192, 2), separable(192, 192)),
            nn.Sequential(convolution(192, 64, 1), convolution(64, 64, 3, 2, 64),
                          convolution(64, 128, 1)),
        ])
        widths = (64, 128, 192, 128)
        counts = [len(sizes) for sizes in MIN_SIZES]
        self.scores = nn.ModuleList([head(w, 2 * n) for w, n in zip(widths, counts)])
        self.offsets = nn.ModuleList([head(w, 4 * n) for w, n in zip(widths, counts)])

    def forward(self, x):
        scores, offsets = [], []
        for level, score, offset in zip(self.levels, self.scores, self.offsets):
            x = level(x)
            scores.append(score(x).permute(0, 2, 3, 1).reshape(x.shape[0], -1, 2))
            offsets.append(offset(x).permute(0, 2, 3, 1).reshape(x.shape[0], -1, 4))
        return torch.cat(scores, 1), torch.cat(offsets, 1)


class InvertedResidual(nn.Module):
    def __init__(self, inputs, outputs, wider, stride=1):
        super().__init__()
        inner = inputs * wider
        self.adds = stride == 1 and inputs == outputs
        self.layers = nn.Sequential(plain(inputs, inner, 1),
                                    plain(inner, inner, 3, stride, inner),
                                    convolution(inner, outputs, 1, relu=False))

    def forward(self, x):
        return x + self.layers(x) if self.adds else self.layers(x)


class Landmarks(nn.Module):
    """68 points (batch, 136: x0, y0, x1, ...), 0 to 1 across the crop."""

    # The last layer counts in steps of this part of the crop, from its middle: a step of the
    # optimizer then moves the points by little.
    UNIT = 0.05
    folded = False

    def __init__(self):
        super().__init__()
        self.layers = nn.Sequential(
            plain(3, 16, 3, 2), separable(16, 24, 2), InvertedResidual(24, 24, 3),
            InvertedResidual(24, 24, 3),
            InvertedResidual(24, 40, 4, 2), InvertedResidual(40, 40, 4),
            InvertedResidual(40, 40, 4), InvertedResidual(40, 40, 4),
            InvertedResidual(40, 64, 3, 2), InvertedResidual(64, 64, 3),
            convolution(64, 32, 1), convolution(32, 128, 7, padding=0),
            nn.Conv2d(128, 2 * data.POINTS, 1))

    def forward(self, x):
        found = self.layers(x).flatten(1)
        return found if self.folded else found * self.UNIT + 0.5

    def trunk(self):
        """What the judge looks at."""
        return self.layers[:10]

    def fold_unit(self):
        with torch.no_grad():
            self.layers[-1].weight.mul_(self.UNIT)
            self.layers[-1].bias.mul_(self.UNIT).add_(0.5)
        self.folded = True


class Judge(nn.Module):
    """From the landmark network's trunk whether the crop's middle is a face: scores (batch, 2:
    none, face; before softmax), and the offsets (batch, 4) of the face's box from the square that
    the crop was made for."""

    def __init__(self):
        super().__init__()
        self.layers = nn.Sequential(
            nn.Conv2d(64, 32, 1), nn.ReLU(), nn.Dropout2d(0.15),
            nn.Conv2d(32, 48, 3, 2), nn.ReLU(), nn.Dropout2d(0.15),
            nn.Conv2d(48, 64, 3), nn.ReLU(), nn.Dropout(0.3))
        self.scores, self.offsets = nn.Conv2d(64, 2, 1), nn.Conv2d(64, 4, 1)

    def forward(self, features):
        x = self.layers(features)
        return self.scores(x).flatten(1), self.offsets(x).flatten(1)


class JudgingLandmarks(nn.Module):
    """Both as they are used: landmarks, scores, offsets."""

    def __init__(self, landmarks, judge):
        super().__init__()
        self.trunk, self.rest = landmarks.trunk(), landmarks.layers[len(landmarks.trunk()):]
        self.judge = judge

    def forward(self, x):
        x = self.trunk(x)
        return (self.rest(x).flatten(1), *self.judge(x))


def normalize(pictures):
    """uint8 pictures (batch, height, width, 3) to the networks' input."""
    tensor = torch.from_numpy(np.ascontiguousarray(pictures)).permute(0, 3, 1, 2)
    return tensor.to(torch.float32).sub_(MEAN).mul_(SCALE).contiguous(
        memory_format=torch.channels_last)


def fold(model):
    """A copy for use: each batch normalisation becomes part of its convolution."""
    import copy

    from torch.nn.utils.fusion import fuse_conv_bn_eval
    model = copy.deepcopy(model).eval()
    for module in list(model.modules()):
        if isinstance(module, nn.Sequential) and len(module) > 1 and isinstance(
                module[1], nn.BatchNorm2d):
            module[0] = fuse_conv_bn_eval(module[0], module[1])
            module[1] = nn.Identity()
    if isinstance(model, Landmarks):
        model.fold_unit()
    return model
