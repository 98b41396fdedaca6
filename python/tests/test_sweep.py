"""The publication sweep: every publication of every hosted module, called through a real host
with each argument in turn at the edges of its type, on the simulator and on the file camera.

Run it against the AddressSanitizer + UndefinedBehaviorSanitizer build (scripts/test sets
OX_BUILD_DIR=build-asan): an overflow that does not crash still ends the host there. The table
comes from the host ("describe"), so a new publication is swept without a change here.
"""

import math
import os
import re
import struct
import time

import pytest

from helpers import REPO
from oxclient import OXError, OXProxy, describe

INT_MIN, INT_MAX = -2 ** 31, 2 ** 31 - 1
# Each int argument also gets the first value past the last valid one of every kind of int this
# service takes (camera 1 and 2, resolution 4, colour space 17, parameter 21, frame rate 31) and
# the parameter identifiers that the cameras handle.
EDGES = {
    "int": [-1, 0, 1, 2, 4, 14, 15, 17, 18, 20, 21, 31, 255, INT_MIN, INT_MAX],
    "bool": [False, True, INT_MIN],
    "float": [math.nan, math.inf, -math.inf, 3.4e38, -3.4e38, 0.0],
    # Empty, 4 KiB, an embedded NUL, and bytes that are not UTF-8 (sent as they are).
    "string": ["", "x" * 4096, "sweep\0.oxv", "\udcff\udcfe.oxv"],
    "std::vector<float>": [[], [[1.0]], [0.5] * 10000, [math.nan, -1.0]],
}
EDGES["OXValue"] = (EDGES["int"][:1] + [INT_MIN, INT_MAX, None, "", [], [[[]]], [0] * 10000,
                    [INT_MIN, INT_MAX], [INT_MAX, INT_MIN], [-1, -1], [1, 2, 3], b"\xff" * 7,
                    b"\x80" * (1280 * 960 * 3 + 1)])
OTHER_KIND = {"int": "7", "bool": "yes", "float": "1.5", "string": 7, "std::vector<float>": 1.5}

CALL_BOUND_MS = 20000  # a first-frame wait is 1 s; nothing legitimate takes this long
SWEEP_BOUND_S = 240
# Texts of the standard library or the compiler's runtime: none may reach a caller.
FOREIGN_TEXT = re.compile(r"vector::|basic_string|_M_|std::|bad_alloc|bad_function_call|"
                          r"__n \(which is|stoi|out_of_range|invalid_argument|length_error|"
                          r"map::at|filesystem error")

SIGNATURE_ERROR = re.compile(r"convertFromOXValue|argument\(s\), not|is not published")

MONO, MULTI = "sweep", "sweepm"
VIDEO = "sweep-video.oxv"


def write_video(path, frames=3, width=320, height=240, colour_space=9):
    """A small .oxv recording (see docs/oxv-format.md): one stream of grey YUV422 frames."""
    size = width * height * 2
    with open(path, "wb") as out:
        out.write(b"OXVR" + struct.pack("<III", 1, 1, 1) +
                  struct.pack("<iiii", width, height, colour_space, 8))
        for i in range(frames):
            out.write(b"OXFR" + struct.pack("<iqb3x4f", size, 1000 + 33333 * i, 0, 0, 0, 0, 0))
            out.write(b"\x80" * size)


class Choice(tuple):
    """Two values to try for a baseline argument, the first first."""


class Sweeper:
    """Calls one module's publications and checks every answer and the host after it."""

    def __init__(self, broker, module, hints):
        self.broker, self.module, self.hints = broker, module, hints
        self.proxy = OXProxy(module, broker.host, broker.port, name="sweeper",
                             timeout_ms=CALL_BOUND_MS)
        self.calls = 0

    def call(self, method, args):
        self.calls += 1
        started = time.monotonic()
        try:
            result = self.proxy.call(method, *args), None
        except OXError as error:
            result = None, error
        where = "%s.%s%s" % (self.module, method, _short(args))
        error = result[1]
        if error is not None:
            assert error.module != "OXProxy", "%s: %s\nhost log:\n%s" % (
                where, error, self.broker.log()[-4000:])
            assert error.description and not FOREIGN_TEXT.search(error.description), (
                "%s: a foreign text reached the caller: %s" % (where, error))
        assert self.broker.process.poll() is None, "%s ended the host:\n%s" % (
            where, self.broker.log()[-6000:])
        self.proxy.ping()
        if method.startswith("subscribe") and isinstance(result[0], str):
            self.proxy.call("unsubscribe", result[0])  # keep the host's memory flat
        return result, time.monotonic() - started

    def baseline(self, record):
        """Arguments that the publication accepts, if the hints have any: the edges then reach
        past its first checks. A plural operation wants the multi-stream subscriber, a geometry
        operation of four values the second list."""
        for choice in range(2):
            args = [self.hints.get(p["name"], self.hints[p["type"]]) for p in record["parameters"]]
            args = [arg[choice] if isinstance(arg, Choice) else arg for arg in args]
            (_, error), _ = self.call(record["name"], args)
            if error is None:
                break
            # Values of the declared types reach the operation, which may refuse them itself.
            assert not SIGNATURE_ERROR.search(str(error)), "%s%s: %s" % (
                record["name"], _short(args), error)
        return args

    def sweep(self, record):
        name, args = record["name"], self.baseline(record)
        for position, param in enumerate(record["parameters"]):
            kind = param["type"]
            values = EDGES[kind] + ([OTHER_KIND[kind]] if kind in OTHER_KIND else [])
            for value in values:
                self.call(name, args[:position] + [value] + args[position + 1:])
        if args:
            self.call(name, args[:-1])
        self.call(name, args + [0])


SIMULATOR_HINTS = {
    "int": 0, "bool": True, "float": 1.0, "string": Choice((MONO, MULTI)), "OXValue": None,
    "std::vector<float>": Choice(([0.5, 0.5], [0.5, 0.5, 0.1, 0.1])),
    "resolution": 1, "colorSpace": 11, "fps": 30, "frameRate": 30, "parameterId": 15,
    "pParam": 15, "param": 15, "value": 30, "pNewValue": 30, "newValue": 30,
    "path": "sweep.oxv", "totalNumber": 2, "period": 1, "width": 160, "height": 120,
    "imageBuffer": b"\x80" * (160 * 120 * 3), "cameraIndexes": [0, 1], "resolutions": [1, 1],
    "colorSpaces": [11, 11], "values": [30, 30],
    "filePath": VIDEO, "range": [0, 2], "replayMode": 0, "streamNumber": 0,
    "imagesPerSecond": 30.0, "eventName": "sweepEvent", "moduleName": "OXVideoDevice",
    "callbackName": "getActiveCamera", "key": "sweepKey", "fileName": "VideoInput",
}
FILECAM_HINTS = dict(SIMULATOR_HINTS, cameraIndexes=[0], resolutions=[1], colorSpaces=[11],
                     values=[30])


def sweep_host(start_broker, tmp_path, prefs, hints, setup):
    """Sweeps every module of a host started in tmp_path; returns (publications, calls)."""
    environment = dict(os.environ, ASAN_OPTIONS="halt_on_error=1:detect_leaks=1",
                       UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1")
    write_video(tmp_path / VIDEO)
    broker = start_broker(prefs, cwd=str(tmp_path), env=environment, log_level=-1)
    deadline = time.monotonic() + SWEEP_BOUND_S
    publications = calls = 0
    with OXProxy("OXVideoDevice", broker.host, broker.port, name="sweep-setup") as device:
        for module in device.modules():
            sweeper = Sweeper(broker, module, hints)
            for record in describe(sweeper.proxy)["methods"]:
                setup(device)  # every publication starts from the same subscribers
                sweeper.sweep(record)
                publications += 1
                assert time.monotonic() < deadline, "the sweep takes longer than its bound"
            calls += sweeper.calls
            sweeper.proxy.close()
    return publications, calls


def simulator_setup(device, cameras=(0, 1)):
    for name in (MONO, MULTI):
        device.unsubscribeAllInstances(name)
    device.subscribeCamera(MONO, 0, 1, 11, 30)
    device.subscribeCameras(MULTI, list(cameras), [1] * len(cameras), [11] * len(cameras), 30)


def filecam_setup(device):
    device.setVideo(VIDEO, None, True, 0, 0)
    simulator_setup(device, cameras=(0,))


# Every call answers with a value or an OXError in our words within its bound, and the host
# (ASan + UBSan) survives each: guards against any argument that indexes, allocates, divides or
# overflows before it is checked, on either camera.
@pytest.mark.parametrize("camera", ["simulator", "filecam"])
def test_every_publication_survives_the_edges_of_its_arguments(start_broker, tmp_path, camera):
    if camera == "simulator":
        found = sweep_host(start_broker, tmp_path, None, SIMULATOR_HINTS, simulator_setup)
    else:
        found = sweep_host(start_broker, tmp_path, REPO / "share" / "preferences" / "filecam",
                           FILECAM_HINTS, filecam_setup)
    print("%s: %d publications, %d calls" % ((camera,) + found))


def _short(args):
    text = repr(args)
    return text if len(text) <= 200 else text[:197] + "..."
