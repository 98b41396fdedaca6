"""Every publication of every hosted module, called through a real host (in scripts/test the
ASan + UBSan one) with each argument in turn at the edges of its type, on both cameras. The table
comes from the host, so a new publication is swept without a change here."""

import math
import os
import re
import struct
import time

import pytest

from helpers import REPO
from oxclient import OXError, OXProxy, describe

INT_MIN, INT_MAX = -2 ** 31, 2 ** 31 - 1
# Ints also get the first value past the last valid one of every kind of int this service takes
# (camera 1 and 2, resolution 4, colour space 17, parameter 21, frame rate 31) and the parameter
# identifiers that the cameras handle. Strings: empty, 4 KiB, a NUL, bytes that are not UTF-8.
# Each type ends with a value of another kind.
EDGES = {
    "int": [-1, 0, 1, 2, 4, 14, 15, 17, 18, 20, 21, 31, 255, INT_MIN, INT_MAX, "7"],
    "bool": [False, True, INT_MIN, "yes"],
    "float": [math.nan, math.inf, -math.inf, 3.4e38, -3.4e38, 0.0, "1.5"],
    "string": ["", "x" * 4096, "sweep\0.oxv", "\udcff\udcfe.oxv", 7],
    "std::vector<float>": [[], [[1.0]], [0.5] * 10000, [math.nan, -1.0], 1.5],
    "OXValue": [-1, INT_MIN, INT_MAX, None, "", [], [[[]]], [0] * 10000, [INT_MIN, INT_MAX],
                [INT_MAX, INT_MIN], [-1, -1], [1, 2, 3], b"\xff" * 7, b"\x80" * (3686400 + 1)],
}
CALL_BOUND_MS = 20000  # a first-frame wait is 1 s; nothing legitimate takes this long
SWEEP_BOUND_S = 240
# Texts of the standard library or the compiler's runtime: none may reach a caller.
FOREIGN_TEXT = re.compile(r"vector::|basic_string|_M_|std::|bad_alloc|bad_function_call|"
                          r"__n \(which is|stoi|out_of_range|invalid_argument|length_error|"
                          r"map::at|filesystem error")
SIGNATURE_ERROR = re.compile(r"convertFromOXValue|argument\(s\), not|is not published")
MONO, MULTI, VIDEO = "sweep", "sweepm", "sweep-video.oxv"


# Values that the publications accept, by parameter name, else by type: the edges of one argument
# then reach past the checks of the others. A tuple holds values to try in turn: a plural
# operation wants the multi-stream subscriber, a geometry operation of four values the 2nd list.
HINTS = {
    "int": 0, "bool": True, "float": 1.0, "string": (MONO, MULTI), "OXValue": None,
    "std::vector<float>": ([0.5, 0.5], [0.5, 0.5, 0.1, 0.1]),
    "resolution": 1, "colorSpace": 11, "fps": 30, "frameRate": 30, "parameterId": 15,
    "pParam": 15, "param": 15, "value": 30, "pNewValue": 30, "newValue": 30,
    "path": "sweep.oxv", "totalNumber": 2, "period": 1, "width": 160, "height": 120,
    "imageBuffer": b"\x80" * (160 * 120 * 3), "filePath": VIDEO, "range": [0, 2],
    "replayMode": 0, "streamNumber": 0, "imagesPerSecond": 30.0, "fileName": "VideoInput",
}


def write_video(path, frames=3, width=320, height=240):
    """A small .oxv recording (docs/oxv-format.md): one stream of grey kYUV422 frames."""
    size = width * height * 2
    with open(path, "wb") as out:
        out.write(b"OXVR" + struct.pack("<IIIiiii", 1, 1, 1, width, height, 9, 8))
        for i in range(frames):
            out.write(b"OXFR" + struct.pack("<iqb3x4f", size, 1000 + 33333 * i, 0, 0, 0, 0, 0))
            out.write(b"\x80" * size)


class Sweeper:
    """Calls one module's publications and checks every answer and the host after it."""

    def __init__(self, broker, module, cameras):
        self.broker, self.module, self.calls = broker, module, 0
        self.hints = dict(HINTS, cameraIndexes=list(range(cameras)), values=[30] * cameras,
                          resolutions=[1] * cameras, colorSpaces=[11] * cameras)
        self.proxy = OXProxy(module, broker.host, broker.port, name="sweeper",
                             timeout_ms=CALL_BOUND_MS)

    def call(self, method, args):
        self.calls += 1
        where = "%s.%s%s" % (self.module, method, repr(args)[:200])
        try:
            result, error = self.proxy.call(method, *args), None
        except OXError as raised:
            result, error = None, raised
            assert error.module != "OXProxy", "%s: %s\n%s" % (where, error, self.broker.log())
            assert error.description and not FOREIGN_TEXT.search(error.description), (where, error)
        assert self.broker.process.poll() is None, where + " ended the host\n" + self.broker.log()
        self.proxy.ping()
        if method.startswith("subscribe") and isinstance(result, str):
            self.proxy.call("unsubscribe", result)  # keep the host's memory flat
        return error

    def sweep(self, record):
        """A baseline that the publication accepts, each argument at its edges, one too few and
        one too many."""
        name, params = record["name"], record["parameters"]
        for choice in range(2):
            args = [self.hints.get(p["name"], self.hints[p["type"]]) for p in params]
            args = [arg[choice] if isinstance(arg, tuple) else arg for arg in args]
            error = self.call(name, args)
            if error is None:
                break
            # Values of the declared types reach the operation, which may refuse them itself.
            assert not SIGNATURE_ERROR.search(str(error)), "%s%r: %s" % (name, args, error)
        for position, param in enumerate(params):
            for value in EDGES[param["type"]]:
                self.call(name, args[:position] + [value] + args[position + 1:])
        if args:
            self.call(name, args[:-1])
        self.call(name, args + [0])


def set_up(device, cameras):
    """Every publication starts from the same subscribers, and the file camera from its video."""
    if cameras == 1:
        device.setVideo(VIDEO, None, True, 0, 0)
    for name in (MONO, MULTI):
        device.unsubscribeAllInstances(name)
    device.subscribeCamera(MONO, 0, 1, 11, 30)
    device.subscribeCameras(MULTI, list(range(cameras)), [1] * cameras, [11] * cameras, 30)


# Every call answers with a value or an OXError in our words within its bound, and the host
# (ASan + UBSan) survives each: guards against any argument that indexes, allocates, divides or
# overflows before it is checked, on either camera.
@pytest.mark.parametrize("prefs,cameras", [("", 2), ("filecam", 1)], ids=["simulator", "filecam"])
def test_every_publication_survives_the_edges_of_its_arguments(start_broker, tmp_path, prefs,
                                                               cameras):
    environment = dict(os.environ, ASAN_OPTIONS="halt_on_error=1:detect_leaks=1",
                       UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1")
    write_video(tmp_path / VIDEO)
    # Remote callers' files (the video, recordings) are in the data directory: a temporary one.
    broker = start_broker(REPO / "share" / "preferences" / prefs, cwd=str(tmp_path),
                          env=environment, log_level=-1, data_dir=str(tmp_path))
    deadline = time.monotonic() + SWEEP_BOUND_S
    publications = calls = 0
    with OXProxy("OXVideoDevice", broker.host, broker.port, name="sweep-setup") as device:
        for module in device.modules():
            sweeper = Sweeper(broker, module, cameras)
            for record in describe(sweeper.proxy)["methods"]:
                set_up(device, cameras)
                sweeper.sweep(record)
                publications += 1
                assert time.monotonic() < deadline, "the sweep takes longer than its bound"
            calls += sweeper.calls
            sweeper.proxy.close()
    print("%s: %d publications, %d calls" % (prefs or "simulator", publications, calls))
