"""The Python package against the tool, on one synthetic swing."""
import csv
import json
import os
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import clubtracker

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("CLUBTRACKER_BUILD", ROOT / "build/release"))
TOOL = BUILD / "tools/clubtrack/clubtrack"


@pytest.fixture(scope="session")
def rec(tmp_path_factory):
    folder = tmp_path_factory.mktemp("swing") / "rec"
    subprocess.run([TOOL, "synth", str(folder), "--seed", "1"], check=True, capture_output=True)
    return folder


def timeless(report):
    """The report without the wall-clock times (the key and the log's last line)."""
    log = [line for line in report["log"] if "Processing Time" not in line]
    return {**report, "processingTimeMs": None, "log": log}


def test_measure_equals_the_tool_json(rec):
    tool = subprocess.run([TOOL, "run", str(rec), "--json", "-", "--quiet"], check=True,
                          capture_output=True, text=True)
    report = clubtracker.measure(str(rec))
    assert report["headTrackingSpeedMps"] > 0
    assert timeless(report) == timeless(json.loads(tool.stdout))


def test_numpy_frames_measure_like_the_loaded_recording(rec):
    loaded = clubtracker.load_recording(rec)

    def rebuilt(frames, layout):
        return [clubtracker.Frame(layout(f.pixels), f.time_stamp, f.sensor_offset, f.ball,
                                  f.after_impact, f.ball_radius) for f in frames]

    # Camera 2's arrays are column-major: the frame copies them.
    built = clubtracker.Recording(rebuilt(loaded.cam1, np.array),
                                  rebuilt(loaded.cam2, np.asfortranarray), loaded.setting)
    expected = timeless(clubtracker.measure(loaded))
    del expected["recording"]
    assert timeless(clubtracker.measure(built)) == expected


GREY = np.zeros((16, 16), np.uint8)
FRAME = clubtracker.Frame(GREY, 0)


@pytest.mark.parametrize("call, error", [
    (lambda: clubtracker.Frame(GREY.astype(np.float32), 0), ValueError),
    (lambda: clubtracker.Frame(np.zeros(16, np.uint8), 0), ValueError),
    (lambda: clubtracker.Frame(np.zeros((4, 4, 2), np.uint8), 0), ValueError),
    (lambda: clubtracker.Frame(GREY, -1), ValueError),
    (lambda: clubtracker.Recording([FRAME], [GREY]), ValueError),
    (lambda: clubtracker.Recording([FRAME, clubtracker.Frame(GREY[:8], 1)], [FRAME]), ValueError),
    (lambda: clubtracker.Recording([FRAME], []), ValueError),
    (lambda: clubtracker.Recording([FRAME], [FRAME], {"cam1Intrinsic": [np.nan] * 9}), ValueError),
    (lambda: clubtracker.Recording([FRAME], [FRAME], {"cam2Extrinsic": [0.0] * 9}), ValueError),
    (lambda: clubtracker.Recording([FRAME], [FRAME], {"roiWidht": 5}), ValueError),
    (lambda: clubtracker.measure(clubtracker.Recording([FRAME], [FRAME]), up=(0, 2, 0)), ValueError),
    (lambda: clubtracker.measure(42), ValueError),
    (lambda: clubtracker.measure("/nonexistent/recording"), OSError),
    (lambda: clubtracker.load_recording("/nonexistent/recording"), OSError),
])
def test_bad_input_raises(call, error):
    with pytest.raises(error, match=r"\w"):
        call()


def test_batch_writes_one_row_per_recording(rec, tmp_path):
    for name in ("a", "b"):
        shutil.copytree(rec, tmp_path / "swings" / name)
    (tmp_path / "swings" / "broken").mkdir()
    (tmp_path / "swings" / "broken" / "run.ini").write_text("not an option file\n")
    table = tmp_path / "out.csv"
    subprocess.run([sys.executable, str(ROOT / "examples/python/batch.py"), str(tmp_path / "swings"),
                    "--csv", str(table), "--jobs", "2"], check=True, capture_output=True)
    rows = list(csv.DictReader(table.open()))
    assert [bool(row["error"]) for row in rows] == [False, False, True]
    assert all(float(row["headTrackingSpeedMps"]) > 0 for row in rows[:2])


def test_installed_package_imports_from_its_prefix(tmp_path):
    subprocess.run(["cmake", "--install", str(BUILD), "--prefix", str(tmp_path)], check=True,
                   capture_output=True)
    site = next(tmp_path.rglob("clubtracker/__init__.py")).parents[1]
    found = subprocess.run([sys.executable, "-c", "import clubtracker; print(clubtracker.__file__)"],
                           env={**os.environ, "PYTHONPATH": str(site)}, check=True,
                           capture_output=True, text=True, cwd=tmp_path)
    assert found.stdout.startswith(str(site))
