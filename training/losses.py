"""What the networks are trained for."""
import numpy as np
import torch
import torch.nn.functional as F

import data
import measures
import models

MATCH, NEAR = 0.38, 0.28  # overlaps: from MATCH on a prior is a face, below NEAR background
POOR, GOOD = 0.3, 0.7  # overlaps of a found box: from useless to as good as it need be
NEGATIVES = 3  # background priors a face prior, the hardest ones


class Targets:
    """Turns a picture's boxes into labels (1 face, 0 background, -1 neither) and offsets."""

    def __init__(self, width=data.WIDTH, height=data.HEIGHT):
        self.width, self.height = width, height
        self.priors = models.priors(width, height)
        half = self.priors[:, 2:] / 2
        self.corners = np.concatenate([self.priors[:, :2] - half, self.priors[:, :2] + half], 1)

    def __call__(self, boxes):
        labels = np.zeros(len(self.priors), np.int64)
        offsets = np.zeros((len(self.priors), 4), np.float32)
        if not len(boxes):
            return labels, offsets
        corners = boxes[:, :4] / np.array([self.width, self.height] * 2, np.float32)
        overlap = measures.overlaps(corners, self.corners)
        best = overlap.argmax(0)
        quality = overlap.max(0)
        labels[quality >= NEAR] = -1
        labels[quality >= MATCH] = 1
        for face, prior in enumerate(overlap.argmax(1)):  # each face has at least one prior
            if overlap[face, prior] > 0.2:
                labels[prior], best[prior] = 1, face
        labels[(labels == 1) & (boxes[best, 4] < 0.5)] = -1
        matched = corners[best]
        center, size = (matched[:, :2] + matched[:, 2:]) / 2, matched[:, 2:] - matched[:, :2]
        offsets[:, :2] = (center - self.priors[:, :2]) / self.priors[:, 2:] / models.VARIANCES[0]
        offsets[:, 2:] = np.log(size / self.priors[:, 2:]) / models.VARIANCES[1]
        return labels, offsets


def agreement(found, wanted):
    """Intersection over union, and the generalised one (Rezatofighi et al. 2019), of boxes given
    by their offsets (N x 4) from the same priors."""
    def corners(offsets):
        half = torch.exp(models.VARIANCES[1] * offsets[:, 2:].clamp(max=20)) / 2
        center = models.VARIANCES[0] * offsets[:, :2]
        return center - half, center + half

    (low, high), (want_low, want_high) = corners(found), corners(wanted)
    area = lambda a, b: (b - a).clamp(min=0).prod(1)
    common = area(torch.maximum(low, want_low), torch.minimum(high, want_high))
    union = area(low, high) + area(want_low, want_high) - common
    hull = area(torch.minimum(low, want_low), torch.maximum(high, want_high))
    return common / union, common / union - (hull - union) / hull


def detector_loss(scores, offsets, labels, targets):
    """Cross entropy over the faces and the hardest background; smooth L1 of the offsets and the
    generalised overlap of the boxes. A face's score is to tell how well its box lies: from
    overlap POOR to GOOD with the truth it shall rise from 0 to 1, so that a box that is off
    ranks behind those that are not."""
    face = labels == 1
    count = face.sum().clamp(min=1)
    overlap, general = agreement(offsets[face], targets[face])
    likely = (labels == 1).to(scores.dtype)
    likely[face] = ((overlap.detach() - POOR) / (GOOD - POOR)).clamp(0, 1)
    logs = F.log_softmax(scores, 2)
    each = -(likely * logs[..., 1] + (1 - likely) * logs[..., 0])
    background = torch.where(labels == 0, each.detach(), torch.full_like(each, -1.0)).reshape(-1)
    kept = NEGATIVES * int(count) + 10 * len(labels)
    hardest = background.topk(min(kept, background.numel())).indices
    score_loss = (each[face].sum() + each.reshape(-1)[hardest].sum()) / count
    offset_loss = F.smooth_l1_loss(offsets[face], targets[face], reduction="sum") / count
    return score_loss, offset_loss, (1 - general).sum() / count


def judge_loss(scores, offsets, overlap, needed, targets):
    """As the detector's, for crops of findings: their overlap with the nearest face, whether that
    one must be found, and its offsets."""
    near, needed = overlap[:, 0] > POOR, needed[:, 0] > 0.5
    common, general = agreement(offsets, targets)
    likely = torch.where(near, ((common.detach() - POOR) / (GOOD - POOR)).clamp(0, 1), 0.0)
    logs = F.log_softmax(scores, 1)
    each = -(likely * logs[:, 1] + (1 - likely) * logs[:, 0])
    return (each[needed | ~near].mean(), F.smooth_l1_loss(offsets[near], targets[near]),
            (1 - general[near]).mean())


def landmark_loss(found, points, width=4.0, bend=1.0):
    """Wing loss in pixels of the crop: steep for small errors. Hidden points count half."""
    error = (found.reshape(points.shape[0], -1, 2) - points[..., :2]).abs() * data.CROP
    offset = width - width * np.log(1 + width / bend)
    wing = torch.where(error < width, width * torch.log(1 + error / bend), error - offset)
    weight = 0.5 + 0.5 * points[..., 2:]
    return (wing * weight).sum() / weight.sum() / 2
