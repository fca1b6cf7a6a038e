#!/usr/bin/env python3
"""Makes one table of ratios from the raw outputs of bench/run.sh."""
import re
import sys

out = sys.argv[1]
WINOGRAD = "wino"
missed = 0


def read(name):
    try:
        return open(f"{out}/{name}.txt").read().splitlines()
    except OSError:
        return []


def verdict(ok):
    global missed
    missed += not ok
    return "ok" if ok else "MISSED"


def row(work, ours, peer, name, goal, peak="", wrong=False):
    """How much faster ours is than the peer; goal 0: no bar."""
    ratio = peer / ours
    end = f"{goal:.2f} | {verdict(ratio >= goal and not wrong)}" if goal else "- | "
    print(f"| {work} | {ours:.1f} | {peak} | {peer:.1f} {name} | {ratio:.2f} | {end} |")


def limit(work, ours, other, name, most, wrong=False):
    """How much longer ours takes than the other."""
    ratio = ours / other
    print(f"| {work} | {ours:.1f} | | {other:.1f} {name} | takes {ratio:.2f} x | at most {most} | "
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


def bars(label):
    """Kind of layer; planned: the ratio and the share of the FMA peak to reach; blocked:
    the ratio to reach."""
    m = re.match(r"(\d+)>(\d+) (\d+)x(\d+) k(\d+) s(\d+)( dw)?", label)
    ic, oc, w, h, k, s = (int(m[i]) for i in range(1, 7))
    if m[7]:
        return "depthwise", 1.5 if s == 1 else 1.3, 0, 0.95 if k == 3 else 0
    blocked = 0.9 if k in (1, 3) and ic >= 32 and oc >= 32 else 0
    if k == 1:
        if oc <= 12:
            return "head", 1.4, 0, 0
        return "pointwise", 1.4 if w * h >= 80 * 60 else 1.1, 85 if ic >= 64 and oc >= 64 else 0, blocked
    if k == 3 and s == 1 and ic >= 32:
        return "dense", 0.95, 0, blocked
    if k == 3 and s == 2 and ic == 3:
        return "first", 1.05, 0, 0
    return "other", 0, 0, blocked


def network(net):
    blocked = []
    fixed = []
    free = 0.0
    for label, count, peers in layers(f"conv-{net}"):
        planar = [(v[1], n) for n, v in peers.items() if v[0] == "planar" and not n.startswith("subject")
                  and WINOGRAD not in v[3]]
        kind, ratio, peak, ratio_blocked = bars(label)
        free += count * peers["onednn-free"][1]
        if "subject-m1" in peers:
            ours = peers["subject-m1"]
            blocked.append((f"{label} x{count} ({kind}), blocked", ours[1], peers["onednn-free"][1], "onednn-free",
                            ratio_blocked, ours[2], "WRONG" in ours[3]))
        if "subject-m3" in peers and "subject-m0" in peers:
            ours = peers["subject-m3"]
            fixed.append((f"{label} x{count}, fixed point, over method 0", ours[1], peers["subject-m0"][1],
                          "method 0", 1.0, "WRONG" in ours[3]))
        if "subject-m2" not in peers or not planar:
            continue
        ours = peers["subject-m2"]
        best, name = min(planar)
        goal = f"{ratio:.2f}" + (f", {peak} %" if peak else "") if ratio else "-"
        ok = best / ours[1] >= ratio and ours[2] >= peak and "WRONG" not in ours[3]
        print(f"| {label} x{count} ({kind}) | {ours[1]:.1f} | {ours[2]:.1f} | {best:.1f} {name} | "
              f"{best / ours[1]:.2f} | {goal} | {verdict(ok) if ratio else ''} |")
    for values in blocked:
        row(*values)
    for values in fixed:
        limit(*values)
    times = dict(re.findall(r"(opencv-dnn|subject-m\d) +min +([\d.]+) us", "\n".join(read(f"net-{net}"))))
    times = {name: float(us) for name, us in times.items()}
    if "opencv-dnn" not in times or "subject-m2" not in times:
        return
    opencv, ours = times["opencv-dnn"], times["subject-m2"]
    large = net == "ssd320"
    row(f"whole {net}, method 2", ours, opencv, "opencv-dnn", 2.1 if large else 1.5)
    limit(f"whole {net}, method 2, over oneDNN's free layers", ours, free, "onednn-free", 1.15)
    if "subject-m1" in times:
        row(f"whole {net}, method 1", times["subject-m1"], opencv, "opencv-dnn", 2.0 if large else 0)
        if large:
            limit(f"whole {net}, method 1, over method 2", times["subject-m1"], ours, "method 2", 1.1)
    if "subject-m0" in times:
        if large:
            limit(f"whole {net}, method 0", times["subject-m0"], opencv, "opencv-dnn", 3)
        else:
            row(f"whole {net}, method 0", times["subject-m0"], opencv, "opencv-dnn", 0)
    if large and "subject-m3" in times and "subject-m0" in times:
        for other, most in (("0", 2), ("2", 3.5)):
            limit(f"whole {net}, fixed point, over method {other}", times["subject-m3"], times[f"subject-m{other}"],
                  f"method {other}", most)


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
                us, peak, wrong = found[ours]
                row(f"{name} {n}", us, found[peer][0], "openblas", goal(n), peak, wrong)


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


print("| work | ours us | % peak | peer us | times as fast | to reach | |")
print("|---|---|---|---|---|---|---|")
for section in (lambda: network("ssd320"), lambda: network("pfld112"), products, images, steps):
    section()
for name in ("conv-ssd320", "conv-pfld112", "sgemm"):
    for line in read(name):
        if line.startswith("AVX2 FMA peak"):
            print(f"\n{name}: {line}")
print(f"\n{missed} bars missed; raw outputs in {out}")
