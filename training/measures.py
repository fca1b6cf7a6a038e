"""Figures of accuracy from boxes and landmarks (numpy alone)."""
from __future__ import annotations

import numpy as np

LEAST_OVERLAP = 0.5  # of a box with the face it finds
RIGHT_EYE, LEFT_EYE = 36, 45  # outer corners


def overlaps(boxes: np.ndarray, others: np.ndarray) -> np.ndarray:
    """Intersection over union of corner boxes (M x 4) with others (N x 4): M x N."""
    low = np.maximum(boxes[:, None, :2], others[None, :, :2])
    high = np.minimum(boxes[:, None, 2:], others[None, :, 2:])
    common = np.prod(np.clip(high - low, 0, None), axis=2)
    area = lambda b: np.prod(b[:, 2:] - b[:, :2], axis=1)
    return common / (area(boxes)[:, None] + area(others)[None] - common)


def judge(boxes: np.ndarray, scores: np.ndarray, truth: np.ndarray) -> list[tuple[float, int]]:
    """A picture's findings, best first: score, and 1 (a face) or 0 (none). truth: M x 5, its last
    column 1 for a face that must be found, 0 for one that may be: findings on those are left out."""
    taken: set[int] = set()
    out = []
    overlap = overlaps(boxes.reshape(-1, 4), truth[:, :4])
    for i in np.argsort(-scores, kind="stable"):
        best = max((j for j in range(len(truth))
                    if j not in taken and overlap[i, j] >= LEAST_OVERLAP),
                   key=lambda j: overlap[i, j], default=None)
        if best is None:
            out.append((float(scores[i]), 0))
            continue
        taken.add(best)
        if truth[best, 4] > 0.5:
            out.append((float(scores[i]), 1))
    return out


def precision(found: list[tuple[float, int]], faces: int, pictures: int
              ) -> tuple[float, float, float]:
    """Average precision; false faces a picture where 0.9 of the faces are found (nan: never);
    the highest recall."""
    ordered = np.array(sorted(found, key=lambda f: -f[0])).reshape(-1, 2)
    right, wrong = np.cumsum(ordered[:, 1]), np.cumsum(1 - ordered[:, 1])
    recall, share = right / faces, right / np.maximum(right + wrong, 1)
    share = np.maximum.accumulate(share[::-1])[::-1]
    at = np.searchsorted(recall, 0.9)
    return (float(np.sum(np.diff(recall, prepend=0) * share)),
            float(wrong[at] / pictures) if at < len(wrong) else float("nan"),
            float(recall[-1]) if len(recall) else 0.0)


def landmark_error(found: np.ndarray, points: np.ndarray, seen: np.ndarray) -> float:
    """Mean distance of the seen points, in parts of the distance of the outer eye corners."""
    distance = np.linalg.norm(found - points, axis=1)
    return float(distance[seen].mean() / np.linalg.norm(points[RIGHT_EYE] - points[LEFT_EYE]))


def angle_between(a: np.ndarray, b: np.ndarray) -> float:
    """Degrees between two rotations."""
    return float(np.degrees(np.arccos(np.clip((np.trace(a.T @ b) - 1) / 2, -1, 1))))


def jitter(points: np.ndarray) -> float:
    """Root mean square distance of points (frames x N x 2) at rest from their means."""
    return float(np.sqrt(np.mean(np.sum((points - points.mean(0)) ** 2, axis=2))))


def lag(found: np.ndarray, smoothed: np.ndarray, truth: np.ndarray) -> float:
    """By how many frames smoothed points trail behind the found ones (each frames x N x 2): least
    squares of their difference over the truth's movement a frame."""
    moves = np.gradient(truth, axis=0)
    return float(np.sum((found - smoothed) * moves) / np.sum(moves * moves))
