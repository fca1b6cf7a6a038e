#!/usr/bin/env python3
"""Makes one table of ratios from the raw outputs of bench/run.sh: table.py FOLDER NETWORK...

All rows go to FOLDER/table.md; printed are, of the layers, those that miss their bar.
"""
import glob
import math
import re
import sys

out = sys.argv[1]
WINOGRAD = "wino"
missed = 0
table = ["| work | ours us | % peak | peer us | times as fast | to reach | |", "|---|---|---|---|---|---|---|"]
rows_auto = []  # (family, ratio, work) against the best planar peer
rows_blocked = []  # against oneDNN's free layout
rows_fixed = []  # fixed point against method 0

# To reach: every row and the geometric mean; of the automatic choice, and in channel blocks.
AUTO, AUTO_PEAK, AUTO_MEAN = 1.0, 95, 1.3
BLOCKED, BLOCKED_MEAN = 0.97, 1.1
# Whole networks, automatic, over the sum of oneDNN's free layers.
WHOLE = {"ssd320": 0.95, "pfld112": 0.85}


def read(name):
    try:
        return open(f"{out}/{name}.txt").read().splitlines()
    except OSError:
        return []


def verdict(ok):
    global missed
    missed += not ok
    return "ok" if ok else "MISSED"


def us(value):
    return f"{value:.1f}" if value >= 10 else f"{value:.3f}"


def row(work, ours, peer, name, goal, peak="", wrong=False, enough=False):
    """How much faster ours is than the peer; goal 0: no bar; enough: met in another way."""
    ratio = peer / ours
    end = f"{goal:.2f} | {verdict((ratio >= goal or enough) and not wrong)}" if goal else "- | "
    table.append(f"| {work} | {us(ours)} | {peak} | {us(peer)} {name} | {ratio:.2f} | {end} |")


def limit(work, ours, other, name, most, wrong=False):
    """How much longer ours takes than the other."""
    ratio = ours / other
    table.append(f"| {work} | {us(ours)} | | {us(other)} {name} | takes {ratio:.2f} x | at most {most} | "
                 f"{verdict(ratio <= most and not wrong)} |")


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


def family(label):
    m = re.match(r"(\d+)>\d+ \d+x\d+ k(\S+) s\S+( d\d\S*)?(?: p\S+)?( dw)?", label)
    if m[3]:
        return "dilated"
    if m[4]:
        return "depthwise"
    if int(m[1]) <= 4:
        return "first layers"
    return {"1": "pointwise", "3": "dense 3x3"}.get(m[2], "other kernels")


def bars(label):
    """Of the planned method: kind of layer, the ratio and the share of the FMA peak to reach."""
    m = re.match(r"(\d+)>(\d+) (\d+)x(\d+) k(\d+) s(\d+)(?: p\d+)?( dw)?", label)
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


def planned(label, count, ours, best, name):
    kind, ratio, peak = bars(label)
    goal = f"{ratio:.2f}" + (f", {peak} %" if peak else "") if ratio else "-"
    ok = best / ours[1] >= ratio and ours[2] >= peak and "WRONG" not in ours[3]
    table.append(f"| {label} x{count} ({kind}), method 2 | {us(ours[1])} | {ours[2]:.1f} | {us(best)} {name} | "
                 f"{best / ours[1]:.2f} | {goal} | {verdict(ok) if ratio else ''} |")


def layer(net, label, count, peers):
    planar = [(v[1], n) for n, v in peers.items() if v[0] == "planar" and not n.startswith("subject")
              and WINOGRAD not in v[3] and "WRONG" not in v[3]]
    work = f"{net}: {label} x{count}"
    kind = family(label)
    if "subject-auto" in peers and planar:
        ours = peers["subject-auto"]
        best, name = min(planar)
        row(f"{work} ({kind})", ours[1], best, name, AUTO, ours[2], "WRONG" in ours[3], ours[2] >= AUTO_PEAK)
        rows_auto.append((kind, best / ours[1], work))
        if net in WHOLE and "subject-m2" in peers:
            planned(label, count, peers["subject-m2"], best, name)
    blocked = [peers[n] for n in ("subject-m1", "subject-m4", "subject-m5") if n in peers]
    if blocked and "onednn-free" in peers:
        ours = min(blocked, key=lambda v: v[1])
        free = peers["onednn-free"][1]
        row(f"{work} ({kind}), blocked", ours[1], free, "onednn-free", BLOCKED, ours[2], "WRONG" in ours[3])
        rows_blocked.append((kind, free / ours[1], work))
    if "subject-m0" not in peers:
        return
    plain = peers["subject-m0"][1]
    for method in ("1", "2"):
        ours = peers.get(f"subject-m{method}")
        if ours and ours[1] > 1.05 * plain:
            limit(f"{work}, method {method} over method 0", ours[1], plain, "method 0", 1.05, "WRONG" in ours[3])
    if "subject-m3" in peers:
        ours = peers["subject-m3"]
        rows_fixed.append((kind, plain / ours[1], work))
        if net in WHOLE and " k3 " in label:
            limit(f"{work}, fixed point over method 0", ours[1], plain, "method 0", 1.0, "WRONG" in ours[3])


def whole(net, free):
    times = dict(re.findall(r"(opencv-dnn|subject-\w+) +min +([\d.]+) us", "\n".join(read(f"net-{net}"))))
    times = {name: float(time) for name, time in times.items()}
    if "opencv-dnn" not in times or "subject-auto" not in times:
        return
    opencv, ours = times["opencv-dnn"], times["subject-auto"]
    limit(f"whole {net}, automatic, over oneDNN's free layers", ours, free, "onednn-free", WHOLE.get(net, 1.05))
    row(f"whole {net}, automatic", ours, opencv, "opencv-dnn", 2.0)
    if net not in WHOLE or "subject-m2" not in times:
        return
    large, ours = net == "ssd320", times["subject-m2"]
    row(f"whole {net}, method 2", ours, opencv, "opencv-dnn", 2.1 if large else 1.5)
    limit(f"whole {net}, method 2, over oneDNN's free layers", ours, free, "onednn-free", 1.15)
    if not large:
        return
    row(f"whole {net}, method 1", times["subject-m1"], opencv, "opencv-dnn", 2.0)
    for method, other, most in (("1", "2", 1.1), ("3", "0", 2), ("3", "2", 3.5)):
        what = "fixed point" if method == "3" else f"method {method}"
        limit(f"whole {net}, {what}, over method {other}", times[f"subject-m{method}"],
              times[f"subject-m{other}"], f"method {other}", most)
    limit(f"whole {net}, method 0", times["subject-m0"], opencv, "opencv-dnn", 3)


def network(net):
    free = 0.0
    for label, count, peers in layers(f"conv-{net}"):
        layer(net, label, count, peers)
        free += count * peers["onednn-free"][1]
    whole(net, free)


def operators():
    found = {}
    label = ""
    for line in read("op"):
        entry = re.match(r" +(\S+) +(planar|free) +min +([\d.]+) us +median +[\d.]+ us(.*)", line)
        if entry:
            found.setdefault(label, {}).setdefault(entry[1], (entry[2], float(entry[3]), "WRONG" in entry[4]))
        else:
            label = line
    for label, peers in found.items():
        planar = [(v[1], n) for n, v in peers.items() if v[0] == "planar" and n != "subject" and not v[2]]
        if "subject" in peers and planar:
            best, name = min(planar)
            _, ours, wrong = peers["subject"]
            row(label, ours, best, name, AUTO, "", wrong)
            rows_auto.append(("ops", best / ours, label))


def products():
    sizes = {}
    for line in read("sgemm"):
        m = re.match(r"(\d+) +(\S+) +([\d.]+) +[\d.]+ +[\d.]+ +([\d.]+)%(.*)", line)
        if m:
            sizes.setdefault(int(m[1]), {})[m[2]] = (float(m[3]), m[4], "WRONG" in m[5])
    kinds = (("subject", "openblas", "general multiply", lambda n: 0.95 if n >= 128 else 0),
             ("subject-f32", "openblas", "matrix product, float,", lambda n: 0.8 if n == 512 else 0),
             ("subject-f64", "openblas-d", "matrix product, double,", lambda n: 0.8 if n == 512 else 0))
    for ours, peer, name, goal in kinds:
        for n, found in sizes.items():
            if ours in found:
                time, peak, wrong = found[ours]
                row(f"{name} {n}", time, found[peer][0], "openblas", goal(n), peak, wrong)


# Operation, and what to reach: (peer, ratio); "best" is the fastest peer.
IMAGES = (("BGR to gray", (("opencv", 2.3), ("libyuv", 0.95))),
          ("BGR to I420", (("opencv", 2.0),)),
          ("I420 to BGR", (("opencv", 1.7),)),
          ("swap red and blue", (("best", 1.0),)),
          ("packed to planes", (("best", 1.0),)),
          ("planes to packed", (("best", 1.0),)),
          (r"resize3 640x480 > 320x240|resize3 1920x1080 > 960x540", (("opencv", 1.7),)),
          (r"resize3 1920x1080 > 320x240|resize3 640x480 > 300x220", (("opencv", 1.05),)),
          (r"resize1", (("opencv", 0.95),)),
          ("detector input", (("opencv blob", 2.5),)),
          ("", (("best", 0),)))


def images():
    found = {}
    for line in read("image"):
        m = re.match(r"(\S.*?) {2,}(opencv blob|opencv conv|opencv|libyuv|subject) +[\d.]+ +[\d.]+ +([\d.]+)(.*)", line)
        if m:
            found.setdefault(m[1], {})[m[2]] = (float(m[3]), "WRONG" in m[4])
    for operation, times in found.items():
        if "subject" not in times:
            continue
        ours, wrong = times.pop("subject")
        times["best"] = min(times.values())
        goals = next(g for pattern, g in IMAGES if re.match(pattern, operation))
        for peer, goal in goals:
            name = peer
            if peer == "best":
                name = next(n for n, v in times.items() if v == times["best"])
            row(operation, ours, times[peer][0], name, goal, "", wrong)


def steps():
    """Suppression and tracking."""
    found = {}
    for line in read("misc"):
        m = re.match(r"(\S.*?) {2,}(opencv|subject) +([\d.]+)(.*)", line)
        if m:
            found.setdefault(m[1], {})[m[2]] = (float(m[3]), "WRONG" in m[4])
    for step, times in found.items():
        if "subject" in times:
            bar = re.match(r"nms (200|1000) |.* 20 tracks", step)
            row(step, times["subject"][0], times["opencv"][0], "opencv", 4.0 if bar else 0, "", times["subject"][1])


def summary(title, rows, goal, every_family=False):
    """Geometric mean by family, a layer that several networks have counted once; worst rows."""
    if not rows:
        return
    distinct = {}
    for kind, ratio, work in rows:
        distinct.setdefault(work.split(": ")[-1].rsplit(" x", 1)[0], (kind, ratio))
    print(f"\n| {title} | distinct rows | geometric mean | below 1 | to reach | |\n|---|---|---|---|---|---|")
    kinds = list(dict.fromkeys(kind for kind, _ in distinct.values()))
    for kind in kinds + ["all"]:
        ratios = [r for k, r in distinct.values() if kind in (k, "all")]
        mean = math.exp(sum(math.log(r) for r in ratios) / len(ratios))
        end = f"{goal} | {verdict(mean >= goal)}" if every_family or kind == "all" else "- | "
        print(f"| {kind} | {len(ratios)} | {mean:.2f} | {sum(r < 1 for r in ratios)} | {end} |")
    worst = sorted((r, w) for _, r, w in rows)[:5]
    print("\nWorst: " + "; ".join(f"{w} {r:.2f}" for r, w in worst) + ".")


for name in sys.argv[2:]:
    network(name)
for section in (operators, products, images, steps):
    section()
with open(f"{out}/table.md", "w") as whole_table:
    print("\n".join(table), file=whole_table)
print("\n".join(line for line in table if line.endswith("MISSED |") or not re.match(r"\| \w+: ", line)))
summary("automatic, planar, over the best planar peer", rows_auto, AUTO_MEAN)
summary("in channel blocks, over oneDNN's free layout", rows_blocked, BLOCKED_MEAN)
summary("fixed point over method 0", rows_fixed, 1.0, True)
peaks = []
for path in sorted(glob.glob(f"{out}/*.txt")):
    name = path.split("/")[-1][:-4]
    text = "\n".join(read(name))
    peaks += [float(best) for best in re.findall(r"AVX2 FMA peak of this run: best ([\d.]+)", text)]
    if "WRONG RESULT" in text:
        print(f"\n{name}: wrong results")
if peaks:
    print(f"\nBest AVX2 FMA bursts of the runs: {min(peaks)} to {max(peaks)} GFLOP/s.")
print(f"\n{missed} bars missed; all rows in {out}/table.md")
