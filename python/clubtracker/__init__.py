"""clubtracker: measure a golf swing from two synchronised high-speed cameras.

    import clubtracker
    report = clubtracker.measure("recording/")      # the dict of `clubtrack run --json`
    print(report["headTrackingSpeedMps"], report["clubData"])

Frames can come from numpy arrays (clubtracker.Frame) and be grouped into a
clubtracker.Recording with the tracker's setting, or be read from disk with
clubtracker.load_recording.
"""
from ._clubtracker import Frame, Recording, __version__, load_recording, measure

__all__ = ["Frame", "Recording", "load_recording", "measure", "__version__"]
