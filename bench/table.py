#!/usr/bin/env python3
"""Makes one table of ratios from the raw outputs of bench/run.sh."""
import re
import sys

out = sys.argv[1]
WINOGRAD = "wino"


def read(name):
    try:
        return open(f"{out}/{name}.txt").read().splitlines()
    except OSError:
        return []


def layers(name):
    rows = []
    for line in read(name):
        head = re.match(r"(\S+>\S+.*?) +x(\d+) +[\d.]+ MFLOP", line)
        entry = re.match(r" +(\S+) +(planar|free) +min +([\d.]+) us.*GFLOP/s +([\d.]+)%(.*)", line)
        if head:
            rows.append((head[1], int(head[2]), {}))
        elif entry and rows:
            rows[-1][2][entry[1]] = (entry[2], float(entry[3]), float(entry[4]), entry[5])
    return rows


def bar(label):
    """Kind of layer, the ratio to reach, the share of the FMA peak to reach."""
    m = re.match(r"(\d+)>(\d+) (\d+)x(\d+) k(\d+) s(\d+)( dw)?", label)
    ic, oc, w, h, k, s = (int(m[i]) for i in range(1, 7))
    if m[7]:
        return "depthwise", 1.5 if s == 1 else 1.3, 0
    if k == 1:
        if oc <= 12:
            return "head", 1.4, 0
        return "pointwise", 1.4 if w * h >= 80 * 60 else 1.1, 85 if ic >= 64 and oc >= 64 else 0
    if k == 3 and s == 1 and ic >= 32:
        return "dense", 0.95, 0
    if k == 3 and s == 2 and ic == 3:
        return "first", 1.05, 0
    return "other", 0, 0


missed = 0


def verdict(ok):
    global missed
    missed += not ok
    return "ok" if ok else "MISSED"


print("| work | ours us | % peak | best planar peer us | ratio | to reach | |")
print("|---|---|---|---|---|---|---|")
for net in ("ssd320", "pfld112"):
    free = 0.0
    for label, count, peers in layers(f"conv-{net}"):
        ours = peers.get("subject-m2")
        planar = [(v[1], n) for n, v in peers.items() if v[0] == "planar" and not n.startswith("subject")
                  and WINOGRAD not in v[3]]
        free += count * peers["onednn-free"][1]
        if not ours or not planar:
            continue
        best, name = min(planar)
        kind, ratio, peak = bar(label)
        goal = f"{ratio:.2f}" + (f", {peak} %" if peak else "") if ratio else "-"
        ok = best / ours[1] >= ratio and ours[2] >= peak and "WRONG" not in ours[3]
        print(f"| {label} x{count} ({kind}) | {ours[1]:.1f} | {ours[2]:.1f} | {best:.1f} {name} | "
              f"{best / ours[1]:.2f} | {goal} | {verdict(ok) if ratio else ''} |")
    text = "\n".join(read(f"net-{net}"))
    times = [float(m) for m in re.findall(r"(?:opencv-dnn|subject) +min +([\d.]+) us", text)]
    if len(times) == 2:
        opencv, ours = times
        goal = 2.1 if net == "ssd320" else 1.5
        print(f"| whole {net} | {ours:.0f} | | {opencv:.0f} opencv-dnn | {opencv / ours:.2f} | {goal} | "
              f"{verdict(opencv / ours >= goal)} |")
        print(f"| whole {net}, time over oneDNN's free layers | {ours:.0f} | | {free:.0f} onednn-free | "
              f"{ours / free:.2f} | at most 1.15 | {verdict(ours / free <= 1.15)} |")
sizes = {}
for line in read("sgemm"):
    m = re.match(r"(\d+) +(openblas|onednn|subject) +([\d.]+) +[\d.]+ +[\d.]+ +([\d.]+)%", line)
    if m:
        sizes.setdefault(int(m[1]), {})[m[2]] = (float(m[3]), float(m[4]))
for n, row in sizes.items():
    if "subject" not in row:
        continue
    ratio = row["openblas"][0] / row["subject"][0]
    print(f"| general multiply {n} | {row['subject'][0]:.1f} | {row['subject'][1]:.1f} | {row['openblas'][0]:.1f} "
          f"openblas | {ratio:.2f} | {'0.95' if n >= 128 else '-'} | {verdict(ratio >= 0.95) if n >= 128 else ''} |")
for name in ("conv-ssd320", "conv-pfld112", "sgemm"):
    for line in read(name):
        if line.startswith("AVX2 FMA peak"):
            print(f"\n{name}: {line}")
print(f"\n{missed} bars missed; raw outputs in {out}")
