#!/usr/bin/env python3
"""Measure every recording under some folders, one CSV row per recording.

    batch.py FOLDER... --csv out.csv [--jobs N]

A recording is a folder holding run.ini. The recordings are measured in
parallel by a pool of processes; a recording that fails gives a row with its
error. A progress bar shows on a terminal.
"""
import argparse
import concurrent.futures
import csv
import multiprocessing
import os
import sys

import clubtracker

BASE_COLUMNS = ["recording", "error", "clubHeadSpeedMps", "headTrackingSpeedMps"]
# The club delivery's keys, each followed by its standard error; a key the
# library adds later gets its columns too.
CLUB_KEYS = ["speedMps", "attackAngleDeg", "pathDeg", "swingPlaneDeg", "swingDirectionDeg",
             "lowPointAheadMm", "lowPointHeightMm", "lowPointSideMm"]


def find_recordings(folders):
    found = []
    for folder in folders:
        for root, dirs, files in os.walk(folder):
            dirs.sort()
            if "run.ini" in files:
                found.append(root)
    return found


def measure_one(path):
    """One CSV row (a dict) for the recording at PATH; never raises."""
    row = {"recording": path, "error": ""}
    try:
        report = clubtracker.measure(path)
    except Exception as error:  # one row per recording, whatever went wrong
        row["error"] = f"{type(error).__name__}: {error}"
        return row
    row["clubHeadSpeedMps"] = report["clubHeadSpeedMps"]
    row["headTrackingSpeedMps"] = report["headTrackingSpeedMps"]
    club = dict(report.get("clubData", {}))
    for key, value in club.pop("stdErr", {}).items():
        row[key + "StdErr"] = value
    row.update(club)
    row["warnings"] = " | ".join(report.get("warnings", []))
    return row


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folders", nargs="+", metavar="FOLDER")
    parser.add_argument("--csv", required=True, help="the table to write")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="processes")
    args = parser.parse_args(argv)

    recordings = find_recordings(args.folders)
    if not recordings:
        print("batch: no recording (a folder holding run.ini) under " + " ".join(args.folders),
              file=sys.stderr)
        return 1
    context = multiprocessing.get_context("forkserver")
    with concurrent.futures.ProcessPoolExecutor(max(1, args.jobs), mp_context=context) as pool:
        futures = [pool.submit(measure_one, path) for path in recordings]
        done = concurrent.futures.as_completed(futures)
        if sys.stderr.isatty():
            from tqdm import tqdm
            done = tqdm(done, total=len(futures), unit="swing")
        for _ in done:
            pass
        rows = [future.result() for future in futures]

    club = [c for key in CLUB_KEYS for c in (key, key + "StdErr")]
    extra = sorted({key for row in rows for key in row} - set(BASE_COLUMNS + club + ["warnings"]))
    with open(args.csv, "w", newline="") as out:
        writer = csv.DictWriter(out, BASE_COLUMNS + club + extra + ["warnings"])
        writer.writeheader()
        writer.writerows(rows)
    failed = sum(1 for row in rows if row["error"])
    print(f"batch: {len(rows)} recordings, {failed} failed -> {args.csv}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    sys.exit(main())
