#!/usr/bin/env python3
"""Draw a swing's club-head path, its fitted arc and the low point in 3D.

    plot_swing.py RECORDING [--out swing.png]

The coordinates are the calibration's world frame (millimetres).
"""
import argparse
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

import clubtracker  # noqa: E402


def arc_points(centre, normal, radius, near=None, count=200):
    """Points of a circle, over the half turn nearest to NEAR (all of it without)."""
    centre = np.asarray(centre, dtype=float)
    normal = np.asarray(normal, dtype=float) / np.linalg.norm(normal)
    u = (np.asarray(near) - centre) if near is not None else np.cross(normal, np.eye(3)[np.argmin(abs(normal))])
    u = u - normal * np.dot(u, normal)
    u /= np.linalg.norm(u)
    v = np.cross(normal, u)
    span = np.pi / 2 if near is not None else np.pi
    angles = np.linspace(-span, span, count)
    return centre + radius * (np.outer(np.cos(angles), u) + np.outer(np.sin(angles), v))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("recording")
    parser.add_argument("--out", default="swing.png")
    args = parser.parse_args(argv)

    report = clubtracker.measure(args.recording, trajectory=True)
    path = report["trajectory"]
    head = np.asarray(path["headPath"], dtype=float).reshape(-1, 3)
    figure = plt.figure(figsize=(8, 7))
    axes = figure.add_subplot(projection="3d")
    missing = []
    if len(head):
        axes.plot(head[:, 0], head[:, 1], head[:, 2], "o-", ms=3, label="club head")
    else:
        missing.append("head path")
    if path["arcRadius"] > 0 and path["arcCentre"] and path["arcNormal"]:
        near = path["lowPoint"] or (head[len(head) // 2] if len(head) else path["ball"])
        arc = arc_points(path["arcCentre"], path["arcNormal"], path["arcRadius"], near)
        axes.plot(arc[:, 0], arc[:, 1], arc[:, 2], "-", lw=1, label="fitted arc")
    else:
        missing.append("fitted arc")
        if report["headRadius"] > 0 and any(report["axisDirection"]):
            # The line-based measurement's circle: the head about the spin axis.
            arc = arc_points(report["axisPosition"], report["axisDirection"], report["headRadius"])
            axes.plot(arc[:, 0], arc[:, 1], arc[:, 2], "--", lw=1, label="line-based arc")
            axes.scatter(*report["axisPosition"], marker="+", s=80, label="pivot")
    for key, style in (("lowPoint", "v"), ("ball", "*")):
        if path[key]:
            axes.scatter(*path[key], marker=style, s=80, label=key)
        else:
            missing.append(key)
    club = report.get("clubData", {})
    speed = club.get("speedMps", report["headTrackingSpeedMps"])
    title = f"{args.recording}\nhead speed {speed:.1f} m/s"
    if missing:
        title += "\n(not measured: " + ", ".join(missing) + ")"
        print("plot_swing: not measured: " + ", ".join(missing), file=sys.stderr)
    axes.set_title(title, fontsize=9)
    axes.set_xlabel("x (mm)")
    axes.set_ylabel("y (mm)")
    axes.set_zlabel("z (mm)")
    axes.set_aspect("equal")
    if axes.has_data():
        axes.legend(loc="upper left", fontsize=8)
    figure.savefig(args.out, dpi=120)
    print(f"plot_swing: wrote {args.out}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
