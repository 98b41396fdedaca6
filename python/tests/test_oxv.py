"""The oxv tool from the command line: exit statuses and messages for bad command lines and bad
input (with nothing left under the output's name), info as JSON, export ranges and PNG folders,
and cut and cat keeping time stamps rising.

Clips are generated with FFmpeg's own test source; the tests skip when the ffmpeg command is
missing. The tool is taken from $OX_TOOLS_DIR, else from the build folder.
"""

import csv
import json
import os
import shutil
import struct
import subprocess

import pytest

from conftest import build_dir


@pytest.fixture(scope="module")
def oxv():
    folder = os.environ.get("OX_TOOLS_DIR") or str(build_dir() / "bin")
    path = os.path.join(folder, "oxv")
    if not os.path.isfile(path):
        pytest.skip("oxv not built in %s (set OX_TOOLS_DIR)" % folder)
    return lambda *args, cwd=None: subprocess.run([path, *map(str, args)], capture_output=True,
                                                  text=True, timeout=60, cwd=cwd)


@pytest.fixture(scope="module")
def clip(oxv, tmp_path_factory):
    """A recording of 10 QQVGA frames, 100 ms apart, imported from a generated video."""
    if shutil.which("ffmpeg") is None:
        pytest.skip("no ffmpeg command to generate test videos")
    folder = tmp_path_factory.mktemp("clip")
    video = folder / "source.mkv"
    subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i",
                    "testsrc=size=160x120:rate=10:duration=1", "-c:v", "ffv1", str(video)],
                   check=True, timeout=60)
    recording = folder / "clip.oxv"
    done = oxv("import", video, recording)
    assert done.returncode == 0, done.stderr
    return recording


def rgb_recording():
    """One black QQVGA kRGB frame, written by the layout of docs/oxv-format.md."""
    header = b"OXVR" + struct.pack("<IIIiiii", 1, 0, 1, 160, 120, 11, 8)
    frame = b"OXFR" + struct.pack("<iqb3x4f", 160 * 120 * 3, 1000, 0, 0, 0, 0, 0)
    return header + frame + bytes(160 * 120 * 3)


def info(oxv, *paths):
    shown = oxv("info", "--json", *paths)
    return shown.returncode, json.loads(shown.stdout)


def stamps(oxv, path, tmp_path):
    """The time stamps of a recording, through a PNG export's timestamps.csv."""
    folder = tmp_path / ("stamps-" + os.path.basename(str(path)))
    assert oxv("export", path, str(folder) + "/").returncode == 0
    with open(folder / "timestamps.csv") as table:
        return [int(row["timestamp_us"]) for row in csv.DictReader(table)]


# Guards against a bad command line running anyway, or failing without a pointer to --help.
def test_help_and_usage_errors(oxv):
    for command in ([], ["info"], ["export"], ["import"], ["cut"], ["cat"], ["formats"]):
        shown = oxv(*command, "--help")
        assert shown.returncode == 0 and shown.stdout.startswith("usage: oxv"), command
    for bad in ([], ["bogus"], ["export"], ["export", "a.oxv"],
                ["export", "--step", "0", "a.oxv", "b.mp4"],
                ["export", "--range", "7", "a.oxv", "b.mp4"],
                ["cut", "--range", "5:2", "a.oxv", "b.oxv"],
                ["import", "--resolution", "8k", "a.mp4", "b.oxv"], ["cat", "a.oxv"], ["info"]):
        refused = oxv(*bad)
        assert refused.returncode == 1, bad
        assert refused.stderr.startswith("oxv: ") and "--help" in refused.stderr, bad


# Guards against bad input crashing a command, passing silently, or leaving a partial or
# replaced output under the final name.
@pytest.mark.parametrize("command, message", [
    (["export", "cut.oxv", "out.mp4"], "is damaged"),
    (["export", "junk.oxv", "out.mp4"], "not a readable .oxv recording"),
    (["export", "clip.oxv", "out.webm"], "unknown extension"),
    (["export", "--range", "5:11", "clip.oxv", "out.mp4"], "beyond the end"),
    (["export", "--range", "10:", "clip.oxv", "out/"], "beyond the end"),
    (["export", "missing.oxv", "out.mp4"], "no such file"),
    (["import", "junk.mp4", "out.oxv"], "cannot read junk.mp4"),
    (["import", "clip.oxv", "out.oxv"], "recording already"),
    (["import", "source.mkv", "out.avi"], "unknown extension"),
    (["cut", "--range", "3:30", "clip.oxv", "out.oxv"], "beyond the end"),
    (["cut", "junk.oxv", "out.oxv"], "not a readable .oxv recording"),
    (["cat", "clip.oxv", "cut.oxv", "out.oxv"], "is damaged"),
    (["cat", "clip.oxv", "rgb.oxv", "out.oxv"], "streams differ"),
])
def test_bad_input_fails_cleanly(oxv, clip, tmp_path, command, message):
    data = clip.read_bytes()
    (tmp_path / "clip.oxv").write_bytes(data)
    (tmp_path / "cut.oxv").write_bytes(data[:len(data) - 1000])
    (tmp_path / "junk.oxv").write_bytes(os.urandom(5000))
    (tmp_path / "junk.mp4").write_bytes(os.urandom(5000))
    (tmp_path / "rgb.oxv").write_bytes(rgb_recording())
    shutil.copy(clip.parent / "source.mkv", tmp_path)
    before = sorted(os.listdir(tmp_path))
    for existing in (False, True):
        output = command[-1].rstrip("/")
        if existing and not command[-1].endswith("/"):
            (tmp_path / output).write_text("keep me")
        failed = oxv(*command, cwd=tmp_path)
        assert failed.returncode == 2, (command, failed.stderr)
        assert failed.stderr.startswith("oxv: ") and message in failed.stderr, failed.stderr
        left = sorted(os.listdir(tmp_path))
        if existing and not command[-1].endswith("/"):
            assert (tmp_path / output).read_text() == "keep me"
            os.remove(tmp_path / output)
            left.remove(output)
        assert left == before


# Guards against info crashing on damage, or miscounting what is readable and what is not.
def test_info_reports_damaged_and_unreadable_files(oxv, clip, tmp_path):
    data = clip.read_bytes()
    frame = (len(data) - 32) // 10
    (tmp_path / "cut.oxv").write_bytes(data[:32 + 6 * frame + 100])
    corrupt = bytearray(data)
    corrupt[32 + 4 * frame] ^= 0xFF  # the marker of frame 4
    (tmp_path / "corrupt.oxv").write_bytes(corrupt)
    (tmp_path / "junk.mp4").write_bytes(os.urandom(3000))
    (tmp_path / "empty.oxv").write_bytes(b"")
    status, files = info(oxv, clip, *(tmp_path / name for name in
                                      ("cut.oxv", "corrupt.oxv", "junk.mp4", "empty.oxv")))
    assert status == 2
    whole, cut, corrupted, junk, empty = files
    assert (whole["readable"], whole["problem"], whole["streams"][0]["frames"]) == (True, None, 10)
    assert cut["readable"] and "cut short" in cut["problem"] and cut["streams"][0]["frames"] == 6
    assert corrupted["readable"] and "corrupt frame" in corrupted["problem"]
    assert corrupted["streams"][0]["frames"] == 4
    assert not junk["readable"] and not empty["readable"] and empty["problem"]
    text = oxv("info", tmp_path / "cut.oxv")
    assert text.returncode == 2 and "6 frames readable" in text.stdout


# Guards against exports that lose the timing, the range or the step, and against info misreading
# a recording or a video file.
def test_info_export_range_step_and_png_folder(oxv, clip, tmp_path):
    status, [recording] = info(oxv, clip)
    assert status == 0 and recording["kind"] == "recording"
    stream = recording["streams"][0]
    assert (stream["width"], stream["height"], stream["resolution"], stream["colorspace"],
            stream["frames"], stream["duration_us"], stream["fps"], stream["cameras"]) == \
        (160, 120, "qqvga", "kYUV422", 10, 1000000, 10.0, [0])
    assert stream["interval_jitter_us"] == 0

    assert oxv("export", clip, tmp_path / "all.mp4").returncode == 0
    status, [video] = info(oxv, tmp_path / "all.mp4")
    assert status == 0 and video["kind"] == "video"
    exported = video["streams"][0]
    assert (exported["frames"], exported["duration_us"], exported["first_timestamp_us"]) == \
        (10, 1000000, stream["first_timestamp_us"])

    done = oxv("export", "--range", "2:8", "--step", "2", clip, tmp_path / "frames")
    assert done.returncode == 0, done.stderr
    assert sorted(os.listdir(tmp_path / "frames")) == [
        "frame_000000.png", "frame_000001.png", "frame_000002.png", "timestamps.csv"]
    with open(tmp_path / "frames" / "timestamps.csv") as table:
        rows = list(csv.DictReader(table))
    first = stream["first_timestamp_us"]
    assert [(int(row["image"]), int(row["timestamp_us"])) for row in rows] == \
        [(2, first + 200000), (4, first + 400000), (6, first + 600000)]


# Guards against cut and cat dropping images or letting time stamps go backwards.
def test_cut_and_cat_keep_time_stamps_rising(oxv, clip, tmp_path):
    original = stamps(oxv, clip, tmp_path)
    head, tail = tmp_path / "head.oxv", tmp_path / "tail.oxv"
    assert oxv("cut", "--range", ":4", clip, head).returncode == 0
    assert oxv("cut", "--range", "4:", clip, tail).returncode == 0
    assert stamps(oxv, head, tmp_path) == original[:4]
    assert stamps(oxv, tail, tmp_path) == original[4:]

    # In order, nothing moves; out of order, the later part is shifted to follow.
    joined, swapped = tmp_path / "joined.oxv", tmp_path / "swapped.oxv"
    assert oxv("cat", head, tail, joined).returncode == 0
    assert stamps(oxv, joined, tmp_path) == original
    assert oxv("cat", tail, head, swapped).returncode == 0
    result = stamps(oxv, swapped, tmp_path)
    assert result[:6] == original[4:]
    assert result[6:] == [t - original[0] + original[-1] + 100000 for t in original[:4]]
