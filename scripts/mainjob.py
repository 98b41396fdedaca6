#!/usr/bin/python3
"""The main job, run by scripts/run after the build.

Starts a broker host on the default simulator configuration, feeds it with oxsim, runs three
subscribers at once in different formats (PNG files under out/), records 50 raw frames with
recordVideo, then replays the recording in a second broker configured for FileCam, grabs a few of
its frames, and exports the recording to out/recording.mp4 (out/recording.mkv where FFmpeg has no
H.264 encoder) with oxv. Prints a summary and stops every process it started, whatever happens.
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "python"))

from oxclient import OXError, OXProxy  # noqa: E402

KRGB, KYUV422 = 11, 9
VGA = 2
SUBSCRIBERS = [
    # name, resolution, colour space, fps, images
    ("qvga-rgb", "qvga", "rgb", 30, 30),
    ("vga-yuv422", "vga", "yuv422", 15, 15),
    ("qqvga-hsy", "qqvga", "hsy", 5, 5),
]
RECORDED_FRAMES = 50


class Processes:
    """Every process the job starts, so that all of them are stopped at the end."""

    def __init__(self, log_dir):
        self.log_dir = log_dir
        self.started = []

    def start(self, name, args, **kwargs):
        log = open(os.path.join(self.log_dir, name + ".log"), "w")
        process = subprocess.Popen(args, stderr=log, stdout=kwargs.pop("stdout", log),
                                   cwd=ROOT, **kwargs)
        self.started.append((name, process, log))
        return process

    def stop(self, process, timeout=10):
        if process.poll() is None:
            process.send_signal(signal.SIGTERM)
            try:
                process.wait(timeout)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        return process.returncode

    def stop_all(self):
        for _, process, log in reversed(self.started):
            self.stop(process)
            log.close()


def start_broker(processes, name, prefs, bindir, data, pages=False):
    """Starts oxbroker on a free loopback port, its clients' files in the folder data, with its
    pages on another free port if pages, and returns (process, host, port, pages URL or None)."""
    process = processes.start(name, [os.path.join(bindir, "oxbroker"), "--port", "0",
                                     "--prefs", prefs, "--data-dir", data, "--log-level", "3",
                                     "--http", "127.0.0.1:0" if pages else "off"],
                              stdout=subprocess.PIPE, text=True)
    line = process.stdout.readline()
    match = re.search(r"listening on tcp://([\d.]+):(\d+)", line)
    if not match:
        raise RuntimeError("%s did not start (see out/logs/%s.log)" % (name, name))
    url = process.stdout.readline().strip().replace("oxbroker: pages on ", "") if pages else None
    return process, match.group(1), int(match.group(2)), url


def count_pngs(folder):
    return len([f for f in os.listdir(folder) if f.endswith(".png")]) if os.path.isdir(folder) else 0


def record(host, port, path):
    """Subscribes a recorder and records RECORDED_FRAMES raw frames to path, a name in the
    broker's data directory; returns the frames taken."""
    proxy = OXProxy("OXVideoDevice", host, port, name="mainjob-recorder")
    name = proxy.subscribeCamera("recorder", 0, VGA, KYUV422, 30)
    taken = 0
    try:
        if not proxy.recordVideo(name, path, RECORDED_FRAMES, 1):
            raise RuntimeError("recordVideo refused to record to " + path)
        deadline = time.monotonic() + 20
        # The recording takes a frame each time the subscriber takes a raw one.
        while taken < RECORDED_FRAMES and time.monotonic() < deadline:
            # The remote form gives the raw frame back by itself.
            if proxy.getDirectRawImageRemote(name) is not None:
                taken += 1
            time.sleep(1 / 30)
        proxy.stopVideo(name)
    finally:
        proxy.unsubscribe(name)
        proxy.close()
    return taken


def export_recording(bindir, recording, out):
    """Exports the recording to out/recording.mp4 where this FFmpeg encodes H.264, else to
    out/recording.mkv; prints `oxv info` of the result and returns (path, frames)."""
    oxv = os.path.join(bindir, "oxv")
    formats = json.loads(subprocess.run([oxv, "formats", "--json"], capture_output=True,
                                        text=True, check=True, timeout=30).stdout)
    h264 = any(f["extension"] == ".mp4" and f["encoder"] == "libx264" for f in formats)
    video = os.path.join(out, "recording.mp4" if h264 else "recording.mkv")
    print("mainjob: exporting the recording to %s" % os.path.relpath(video, ROOT))
    done = subprocess.run([oxv, "export", recording, video], capture_output=True, text=True,
                          timeout=120)
    if done.returncode != 0:
        raise RuntimeError("oxv export failed: " + done.stderr.strip())
    shown = subprocess.run([oxv, "info", os.path.relpath(video, ROOT)], capture_output=True,
                           text=True, timeout=60, cwd=ROOT)
    print(shown.stdout, end="")
    summary = subprocess.run([oxv, "info", "--json", video], capture_output=True, text=True,
                             timeout=60)
    if shown.returncode != 0 or summary.returncode != 0:
        raise RuntimeError("oxv info failed: " + shown.stderr.strip())
    return video, json.loads(summary.stdout)[0]["streams"][0]["frames"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", default=os.path.join(ROOT, "build"), help="build directory")
    parser.add_argument("--out", default=os.path.join(ROOT, "out"), help="output directory")
    options = parser.parse_args()
    bindir = os.path.join(options.build, "bin")
    out = options.out
    logs = os.path.join(out, "logs")
    os.makedirs(logs, exist_ok=True)
    for entry in os.listdir(out):
        if entry.endswith(".oxv") or entry in ("recording.mp4", "recording.mkv"):
            os.remove(os.path.join(out, entry))

    processes = Processes(logs)
    summary = []
    started = time.monotonic()
    try:
        print("mainjob: starting the broker host (SimulatorCam)")
        broker, host, port, pages = start_broker(processes, "broker-simulator",
                                                 os.path.join(ROOT, "share", "preferences"),
                                                 bindir, out, pages=True)
        url = "tcp://%s:%d" % (host, port)
        print("mainjob: broker listening on %s, its pages on %s; starting oxsim (640x480 at 30 fps)"
              % (url, pages))
        processes.start("oxsim", [os.path.join(bindir, "oxsim"), "--url", url, "--size",
                                  "640x480", "--fps", "30", "--quiet"])
        time.sleep(0.3)

        print("mainjob: three subscribers at once")
        grabbers = []
        for name, resolution, colorspace, fps, count in SUBSCRIBERS:
            folder = os.path.join(out, name)
            os.makedirs(folder, exist_ok=True)
            for stale in os.listdir(folder):
                os.remove(os.path.join(folder, stale))
            process = processes.start(
                "oxgrab-" + name,
                [os.path.join(bindir, "oxgrab"), "--url", url, "--name", name, "--resolution",
                 resolution, "--colorspace", colorspace, "--fps", str(fps), "--count",
                 str(count), "--out", folder, "--prefix", name],
                stdout=subprocess.PIPE, text=True)
            label = "%s %s %d fps" % (resolution, colorspace, fps)
            grabbers.append((name, label, count, folder, process, time.monotonic()))
        failed = False
        for name, label, count, folder, process, begun in grabbers:
            output, _ = process.communicate(timeout=60)
            elapsed = time.monotonic() - begun
            rate = re.findall(r"([\d.]+) (?:images|frames)? ?(?:a second|/s|fps)", output)
            written = count_pngs(folder)
            summary.append((name, label, written,
                            (rate[-1] + " fps") if rate else "%.1f fps" % (written / elapsed),
                            os.path.relpath(folder, ROOT)))
            if process.returncode != 0 or written != count:
                failed = True
                print("mainjob: %s ended with status %d after %d images" %
                      (name, process.returncode, written))

        recording = os.path.join(out, "recording.oxv")
        print("mainjob: recording %d raw frames to %s" % (RECORDED_FRAMES,
                                                            os.path.relpath(recording, ROOT)))
        recorded = record(host, port, os.path.basename(recording))
        size = os.path.getsize(recording) if os.path.exists(recording) else 0
        summary.append(("recorder", "vga yuv422 raw", recorded, "-",
                        "%s (%d bytes)" % (os.path.relpath(recording, ROOT), size)))
        if recorded != RECORDED_FRAMES or size == 0:
            failed = True
        for name, process, _ in processes.started:
            if name in ("oxsim", "broker-simulator"):
                processes.stop(process)

        print("mainjob: replaying the recording in a second broker (FileCam)")
        _, host, port, _ = start_broker(processes, "broker-filecam",
                                        os.path.join(ROOT, "share", "preferences", "filecam"),
                                        bindir, out)
        with OXProxy("OXVideoDevice", host, port, name="mainjob") as proxy:
            proxy.setVideo(os.path.basename(recording), None, True, 0, 0)
        folder = os.path.join(out, "replay-rgb")
        os.makedirs(folder, exist_ok=True)
        for stale in os.listdir(folder):
            os.remove(os.path.join(folder, stale))
        grab = subprocess.run(
            [os.path.join(bindir, "oxgrab"), "--url", "tcp://%s:%d" % (host, port), "--name",
             "replay", "--resolution", "vga", "--colorspace", "rgb", "--fps", "15", "--count",
             "5", "--out", folder, "--prefix", "replay"],
            capture_output=True, text=True, timeout=60, cwd=ROOT)
        written = count_pngs(folder)
        summary.append(("replay-rgb", "vga rgb 15 fps", written, "-", os.path.relpath(folder, ROOT)))
        if grab.returncode != 0 or written != 5:
            failed = True
            print(grab.stdout + grab.stderr)

        video, exported = export_recording(bindir, recording, out)
        summary.append(("export", os.path.splitext(video)[1][1:] + " video", exported, "-",
                        "%s (%d bytes)" % (os.path.relpath(video, ROOT), os.path.getsize(video))))
        if exported != recorded:
            failed = True
    except (OXError, RuntimeError, OSError, subprocess.TimeoutExpired) as error:
        print("mainjob: failed: %s" % error)
        failed = True
    finally:
        processes.stop_all()

    print()
    print("%-12s %-18s %7s %10s  %s" % ("subscriber", "format", "frames", "achieved", "files"))
    for row in summary:
        print("%-12s %-18s %7s %10s  %s" % row)
    print("mainjob: %s in %.1f s; logs in %s" % ("failed" if failed else "done",
                                                 time.monotonic() - started,
                                                 os.path.relpath(logs, ROOT)))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
