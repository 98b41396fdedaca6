"""Integration tests of the command-line tools oxcall, oxsim and oxgrab against a broker host.

The tools are taken from $OX_TOOLS_DIR, else from the broker's own bin folder.
"""

import json
import os
import shutil
import signal
import struct
import subprocess
import time
import zlib

import pytest

DEVICE = "OXVideoDevice"
PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


@pytest.fixture
def tools(request):
    folder = os.environ.get("OX_TOOLS_DIR") or request.getfixturevalue("broker").bindir
    missing = [name for name in ("oxcall", "oxsim", "oxgrab")
               if not os.path.isfile(os.path.join(str(folder), name))]
    if missing:
        pytest.skip("%s not built in %s (set OX_TOOLS_DIR)" % (", ".join(missing), folder))
    return lambda name: os.path.join(str(folder), name)


def run(tools, name, *args, timeout=30):
    return subprocess.run([tools(name), *map(str, args)], capture_output=True, text=True,
                          timeout=timeout)


def call(tools, broker, *args):
    return run(tools, "oxcall", "--url", broker.url, *args)


def png_size(path):
    with open(path, "rb") as png:
        head = png.read(33)
    assert head[:8] == PNG_SIGNATURE, path
    length, kind, width, height, depth, colour = struct.unpack(">I4sIIBB", head[8:26])
    assert (length, kind, depth, colour) == (13, b"IHDR", 8, 2), path  # 8-bit RGB
    return width, height


def write_png(path, width, height, pixel):
    rows = b"".join(b"\0" + bytes(c for x in range(width) for c in pixel(x, y))
                    for y in range(height))

    def chunk(kind, body):
        return struct.pack(">I", len(body)) + kind + body + struct.pack(
            ">I", zlib.crc32(kind + body))

    path.write_bytes(PNG_SIGNATURE + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2,
                                                                0, 0, 0))
                     + chunk(b"IDAT", zlib.compress(rows)) + chunk(b"IEND", b""))


def read_png(path):
    """8-bit RGB pixels as rows of (r, g, b), undoing the five PNG filters."""
    width, height = png_size(path)
    with open(path, "rb") as png:
        data = png.read()
    pos, packed = 8, b""
    while pos < len(data):
        length, kind = struct.unpack(">I4s", data[pos:pos + 8])
        if kind == b"IDAT":
            packed += data[pos + 8:pos + 8 + length]
        pos += 12 + length
    raw, stride, rows, previous = zlib.decompress(packed), width * 3, [], bytearray(width * 3)
    for y in range(height):
        start = y * (stride + 1)
        kind, line = raw[start], bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            a, b = (line[i - 3] if i >= 3 else 0), previous[i]
            c = previous[i - 3] if i >= 3 else 0
            paeth = min((abs(b - c), 0, a), (abs(a - c), 1, b), (abs(a + b - 2 * c), 2, c))[2]
            line[i] = (line[i] + (0, a, b, (a + b) // 2, paeth)[kind]) & 255
        rows.append([tuple(line[x * 3:x * 3 + 3]) for x in range(width)])
        previous = line
    return rows


def wait_for_line(process, text, timeout=10):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        line = process.stdout.readline()
        if text in line:
            return line
        if not line and process.poll() is not None:
            break
    pytest.fail("%r never printed by %s" % (text, process.args[0]))


@pytest.mark.parametrize("tool, bad", [
    ("oxcall", ["--bogus"]),
    ("oxcall", [DEVICE, "getFrameRate", "zero"]),          # not JSON
    ("oxcall", [DEVICE, "getFrameRate", "3000000000"]),    # beyond 32 bits
    ("oxcall", [DEVICE, "putImage", '{"binary-hex": "0g"}']),
    ("oxsim", ["--size", "100x100"]),
    ("oxsim", ["--fps", "-3"]),
    ("oxsim", ["--png-dir", "/nonexistent/frames"]),
    ("oxsim", ["--loop"]),                                  # only with --input
    ("oxsim", ["--input", "a.mp4", "--png-dir", "frames"]),
    ("oxgrab", ["--colorspace", "cmyk"]),
    ("oxgrab", ["--resolution", "7"]),
    ("oxgrab", ["--count"]),
    ("oxgrab", ["--server-key", "/dev/null"]),               # without --client-key
    ("oxkeygen", ["keys", "--name", "a/b"]),
])
def test_help_and_usage_errors(tools, tool, bad):
    shown = run(tools, tool, "--help")
    assert shown.returncode == 0 and shown.stdout.startswith("usage: " + tool)
    refused = run(tools, tool, *bad)
    assert refused.returncode == 1
    assert refused.stderr.startswith(tool + ": ") and "--help" in refused.stderr


def test_call_round_trip_with_binary(tools, start_broker, tmp_path):
    # Each oxcall is a session of its own: without --keep-subscribers the broker would
    # unsubscribe t_call as soon as the oxcall that made it ends.
    broker = start_broker(keep_subscribers=True)
    assert json.loads(call(tools, broker, DEVICE, "getFrameRate", 0).stdout) > 0
    name = json.loads(call(tools, broker, DEVICE, "subscribeCamera", '"t_call"', 0, 0, 11, 5)
                      .stdout)
    try:
        # After subscribing: the camera drops what was pushed before it was first opened.
        frame = tmp_path / "frame.rgb"
        frame.write_bytes(bytes(range(256)) * (160 * 120 * 3 // 256))
        pushed = call(tools, broker, DEVICE, "putImage", 0, 160, 120,
                      json.dumps({"binary-file": str(frame)}))
        assert (pushed.returncode, pushed.stdout) == (0, "true\n")
        short = call(tools, broker, DEVICE, "putImage", 0, 160, 120, '{"binary-hex": "00ff"}')
        assert short.stdout == "false\n"  # the device refuses a frame of the wrong size
        for _ in range(20):  # null: no image converted yet
            image = json.loads(call(tools, broker, DEVICE, "getImageRemote", json.dumps(name))
                               .stdout)
            if image is not None:
                break
            time.sleep(0.05)
        assert image[:4] == [160, 120, 3, 11]
        assert image[6] == {"binary": 160 * 120 * 3}
        assert all(isinstance(angle, float) for angle in image[8:])
    finally:
        gone = call(tools, broker, DEVICE, "unsubscribe", json.dumps(name))
    assert (gone.returncode, gone.stdout) == (0, "null\n")


def test_errors_exit_2_with_the_device_text(tools, broker):
    unknown = call(tools, broker, DEVICE, "getImageRemote", '"nobody"')
    assert unknown.returncode == 2 and unknown.stdout == ""
    assert unknown.stderr.startswith(
        "OXVideoDevice::getImageRemote(): getDirectRawImageRemote(nobody) : module nobody unknown!")
    assert call(tools, broker, "NoSuchModule", "ping").returncode == 2
    nobody = run(tools, "oxcall", "--url", "tcp://127.0.0.1:1", "--timeout", 300, "--list", DEVICE)
    assert nobody.returncode == 2 and nobody.stderr.strip()


def test_list_and_describe(tools, broker):
    names = call(tools, broker, "--list", DEVICE).stdout.split()
    assert {"putImage", "subscribeCamera", "getImageRemote", "unsubscribe"} <= set(names)
    assert len(names) == len(set(names))

    table = json.loads(call(tools, broker, "--describe", DEVICE).stdout)
    assert list(table) == ["module", "description", "examples", "methods"]
    assert table["module"] == DEVICE
    assert list(dict.fromkeys(m["name"] for m in table["methods"])) == names
    try:
        from oxclient import OXProxy, describe
    except ImportError:
        pass
    else:
        proxy = OXProxy(DEVICE, broker.host, broker.port, name="test_tools")
        try:
            assert table == describe(proxy)
        finally:
            proxy.close()

    put = json.loads(call(tools, broker, "--describe", DEVICE, "putImage").stdout)
    assert put == [m for m in table["methods"] if m["name"] == "putImage"]
    assert [p["name"] for p in put[0]["parameters"]] == ["cameraIndex", "width", "height",
                                                         "imageBuffer"]
    assert put[0]["overload"] is True and put[0]["return"]["type"] == "bool"


def test_sim_then_grab_in_two_colour_spaces(tools, broker, tmp_path):
    for colour_space, resolution, size in (("rgb", "qvga", (320, 240)),
                                           ("yuv422", "qqvga", (160, 120))):
        # oxgrab subscribes first: a camera drops the frames pushed before its first opening.
        grab = subprocess.Popen(
            [tools("oxgrab"), "--url", broker.url, "--name", "t_grab", "--count", "3",
             "--fps", "30", "--colorspace", colour_space, "--resolution", resolution,
             "--out", tmp_path / colour_space], text=True, stdout=subprocess.PIPE)
        try:
            wait_for_line(grab, "subscribed as t_grab")
            sim = run(tools, "oxsim", "--url", broker.url, "--frames", 5, "--size", "320x240",
                      "--fps", 50, "--quiet")
            assert (sim.returncode, sim.stdout, sim.stderr) == (0, "", "")
            output = grab.communicate(timeout=20)[0]
        finally:
            if grab.poll() is None:
                grab.kill()
        assert grab.returncode == 0
        assert output.count(" age ") == 3 and "images" in output.splitlines()[-1]
        files = sorted(os.listdir(tmp_path / colour_space))
        assert files == ["t_grab_0000.png", "t_grab_0001.png", "t_grab_0002.png"]
        assert {png_size(tmp_path / colour_space / f) for f in files} == {size}
    # Unsubscribed on the way out.
    assert call(tools, broker, DEVICE, "getImageRemote", '"t_grab"').returncode == 2


def test_signals_end_the_tools_cleanly(tools, broker, tmp_path):
    sim = subprocess.Popen([tools("oxsim"), "--url", broker.url, "--fps", "20"], text=True,
                           stdout=subprocess.PIPE)
    grab = None
    try:
        wait_for_line(sim, "frames pushed")
        grab = subprocess.Popen([tools("oxgrab"), "--url", broker.url, "--name", "t_sig",
                                 "--count", "100000", "--fps", "10", "--out", tmp_path],
                                text=True, stdout=subprocess.PIPE)
        wait_for_line(grab, ".png")
        grab.send_signal(signal.SIGINT)
        assert grab.wait(timeout=10) == 0
        assert call(tools, broker, DEVICE, "getImageRemote", '"t_sig"').returncode == 2
        sim.send_signal(signal.SIGTERM)
        assert sim.wait(timeout=10) == 0
    finally:
        for process in (sim, grab):
            if process is not None and process.poll() is None:
                process.kill()
                process.wait()


# Four flat quarters, so that chroma shared by two pixels changes nothing at their centres.
QUARTERS = {(0, 0): (200, 40, 40), (1, 0): (40, 180, 60), (0, 1): (50, 60, 210),
            (1, 1): (128, 128, 128)}


def luma(rgb):
    return 0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]


def test_png_dir_frames_come_back_in_every_colour_space(tools, broker, tmp_path):
    folder = tmp_path / "frames"
    folder.mkdir()
    write_png(folder / "a.png", 160, 120, lambda x, y: QUARTERS[(x // 80, y // 60)])
    sim = subprocess.Popen([tools("oxsim"), "--url", broker.url, "--png-dir", folder, "--fps",
                            "30"], text=True, stdout=subprocess.PIPE)
    try:
        wait_for_line(sim, "frames pushed")  # the camera's newest frame is ours from now on
        for colour_space, tolerance in (("rgb", 8), ("bgr", 8), ("yuv422", 8), ("yuv", 8),
                                        ("yycbcr", 8), ("Yuv", 8), ("hsy", None),
                                        ("h2rgb", None), ("hsmixed", None)):
            grab = run(tools, "oxgrab", "--url", broker.url, "--name", "t_png", "--count", 1,
                       "--resolution", "qqvga", "--colorspace", colour_space, "--out", tmp_path,
                       "--prefix", colour_space)
            assert grab.returncode == 0, grab.stderr
            rows = read_png(tmp_path / (colour_space + "_0000.png"))
            for (qx, qy), expected in QUARTERS.items():
                got = rows[qy * 60 + 30][qx * 80 + 40]
                why = (colour_space, got, expected)
                if colour_space == "Yuv":
                    assert got[0] == got[1] == got[2], why
                    assert abs(got[0] - luma(expected)) <= tolerance, why
                elif tolerance is not None:
                    assert max(abs(g - e) for g, e in zip(got, expected)) <= tolerance, why
                elif expected[0] != expected[1]:  # hue spaces: approximate
                    assert got.index(max(got)) == expected.index(max(expected)), why
                    if colour_space == "hsy":  # the one with a luma
                        assert abs(luma(got) - luma(expected)) <= 15, why
    finally:
        sim.terminate()
        assert sim.wait(timeout=10) == 0


# Guards against --input frames that are lost, mis-sized or mis-coloured on their way to the
# camera, a video that does not end without --loop, and an unreadable video that passes silently.
def test_video_input_feeds_the_camera(tools, broker, tmp_path):
    if shutil.which("ffmpeg") is None:
        pytest.skip("no ffmpeg command to generate a test video")
    video = tmp_path / "red.mkv"  # 200x150: the nearest size the camera takes is 160x120
    subprocess.run(["ffmpeg", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i",
                    "color=c=0xC82828:size=200x150:rate=10:duration=1", "-c:v", "ffv1",
                    str(video)], check=True, timeout=60)
    sim = subprocess.Popen([tools("oxsim"), "--url", broker.url, "--input", video, "--loop",
                            "--fps", "30"], text=True, stdout=subprocess.PIPE)
    try:
        wait_for_line(sim, "frames pushed")
        grab = run(tools, "oxgrab", "--url", broker.url, "--name", "t_video", "--count", 1,
                   "--resolution", "qqvga", "--colorspace", "rgb", "--out", tmp_path)
        assert grab.returncode == 0, grab.stderr
        got = read_png(tmp_path / "t_video_0000.png")[60][80]
        assert max(abs(g - e) for g, e in zip(got, (200, 40, 40))) <= 8, got
    finally:
        sim.terminate()
        assert sim.wait(timeout=10) == 0
    once = run(tools, "oxsim", "--url", broker.url, "--input", video, "--fps", 100)
    assert once.returncode == 0 and "done, 10 frames pushed" in once.stdout, once.stdout
    (tmp_path / "junk.mp4").write_bytes(b"no video" * 100)
    junk = run(tools, "oxsim", "--url", broker.url, "--input", tmp_path / "junk.mp4")
    assert junk.returncode == 2 and "cannot read" in junk.stderr
