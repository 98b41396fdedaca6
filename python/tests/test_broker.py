"""The client against a real broker host serving the video device."""

import re
import signal
import subprocess
import sys

import numpy as np
import pytest

from helpers import REPO, child_environment, poll_until
from oxclient import OXError, OXProxy, describe, image_to_numpy

DEVICE = "OXVideoDevice"
QVGA, RGB, FPS = 1, 11, 30
WIDTH, HEIGHT = 320, 240
COLOUR = (200, 100, 50)
SOURCES = REPO / "vision" / "videoinput" / "src"


def throw_line(source, marker):
    """The line of the __LINE__ that follows marker in source: the line an OXError reports."""
    lines = source.read_text().splitlines()
    start = next(i for i, line in enumerate(lines) if marker in line)
    return next(i + 1 for i in range(start, len(lines)) if "__LINE__" in lines[i])


def uniform_frame(colour=COLOUR):
    return bytes(colour) * (WIDTH * HEIGHT)


# Every test of the device runs over the socket and over a shared-memory area, whose calls go over
# the session's Unix socket by default.
@pytest.fixture(params=[False, True], ids=["socket", "shared-memory"])
def device(broker, request):
    with OXProxy(DEVICE, broker.host, broker.port, name="pytest", timeout_ms=10000,
                 shared_memory=request.param) as proxy:
        assert proxy.shared_memory is request.param
        assert proxy.unix_socket is request.param
        yield proxy


class TestCalls:
    def test_pushed_frame_comes_back_as_an_image(self, device):
        name = device.subscribeCamera("pytest", 0, QVGA, RGB, FPS)
        assert name == "pytest"
        try:
            assert device.putImage(0, WIDTH, HEIGHT, uniform_frame()) is True
            value = device.getImageRemote(name)
            assert value[:4] == [WIDTH, HEIGHT, 3, RGB]
            assert value[7] == 0  # camera index
            pixels = image_to_numpy(value)
            assert pixels.shape == (HEIGHT, WIDTH, 3)
            # The frame goes through the device's internal format, which may cost one step of
            # rounding, but a uniform frame must stay uniform.
            assert (pixels == pixels[0, 0]).all()
            assert np.abs(pixels[0, 0].astype(int) - COLOUR).max() <= 2
        finally:
            device.unsubscribe(name)

    def test_device_error_arrives_with_its_exact_text(self, device):
        with pytest.raises(OXError) as caught:
            device.getImageRemote("nobody")
        line = throw_line(SOURCES / "device" / "oxvisionvideoinput.cpp", "pCheck.fUnknownPiece")
        error = caught.value
        assert error.description == "getDirectRawImageRemote(nobody) : module nobody unknown!"
        assert str(error) == ("OXVideoDevice::getImageRemote(): getDirectRawImageRemote(nobody) "
                              ": module nobody unknown! (oxvisionvideoinput:%d)" % line)

    def test_unknown_method_and_unfit_arguments_are_the_modules_errors(self, device):
        with pytest.raises(OXError) as caught:
            device.noSuchMethod(1)
        assert (caught.value.module, caught.value.method, caught.value.description) == (
            DEVICE, "noSuchMethod", "Method noSuchMethod is not published by module " + DEVICE)
        with pytest.raises(OXError) as caught:
            device.putImage("a", "b")
        assert (caught.value.module, caught.value.description) == (
            DEVICE, "Method putImage takes 4, 1 argument(s), not 2")
        # The right count with a wrong type is refused while the argument is converted.
        with pytest.raises(OXError, match="Parameter type is string instead of int"):
            device.putImage(0, "wide", HEIGHT, b"")
        assert device.ping() is None  # the connection is still good

    def test_unknown_module_is_refused_at_hello(self, broker):
        with pytest.raises(OXError) as caught:
            OXProxy("NoSuchModule", broker.host, broker.port, timeout_ms=5000)
        assert caught.value.module == "OXBroker"
        assert caught.value.description == (
            "no module named NoSuchModule is registered with broker oxbroker")

    def test_filecam_source_refuses_pushed_frames(self, start_broker, filecam_prefs):
        broker = start_broker(filecam_prefs)
        with OXProxy(DEVICE, broker.host, broker.port, timeout_ms=10000) as device:
            with pytest.raises(OXError) as caught:
                device.putImage(0, WIDTH, HEIGHT, uniform_frame())
        line = throw_line(SOURCES / "device" / "oxvisionvideoinputqueries.cpp",
                          "bool OXVisionVideoInput::putImage(const int&")
        assert str(caught.value) == (
            "OXVideoDevice::putImage(): Only implemented for simulator (oxvisionvideoinput:%d)"
            % line)


def read_method_table():
    """tests/data/method_table.txt as describe() presents it."""
    def unescape(text):
        return re.sub(r"\\(.)", lambda m: {"n": "\n", "t": "\t"}.get(m.group(1), m.group(1)),
                      text)

    methods = []
    for line in (REPO / "tests" / "data" / "method_table.txt").read_text().splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        name, class_name, flags, binding, *fields = line.split("\t")
        method = {"name": name, "class": class_name, "flags": int(flags[len("flags="):]),
                  "overload": binding == "bindMethodOverload", "parameters": [], "examples": []}
        for field in fields:
            key, text = field.split("=", 1)
            if key == "description":
                method["description"] = unescape(text)
            elif key in ("param", "return"):
                pname, ptype, ptext = text.split("|", 2)
                entry = {"name": pname, "description": unescape(ptext), "type": ptype}
                if key == "param":
                    method["parameters"].append(entry)
                else:
                    method["return"] = entry
            else:
                language, example = text.split("|", 1)
                method["examples"].append({"language": language, "text": unescape(example)})
        methods.append(method)
    return methods


class TestIntrospection:
    def test_describe_matches_the_method_table(self, device):
        described = describe(device)
        expected = read_method_table()
        assert len(described["methods"]) >= 84
        assert described["module"] == DEVICE
        assert [m["name"] for m in described["methods"]] == [m["name"] for m in expected]
        assert [m["overload"] for m in described["methods"]] == [m["overload"] for m in expected]
        for got, want in zip(described["methods"], expected):
            assert got == want, got["name"]
        assert any('OXProxy("OXVideoDevice", "127.0.0.1", 7761)' in example["text"]
                   for example in described["examples"])

    def test_methods_and_help_follow_the_table(self, device):
        expected = read_method_table()
        names = list(dict.fromkeys(m["name"] for m in expected))
        assert device.methods() == names
        records = device.help("putImage")
        assert [[p[0] for p in record[4]] for record in records] == [
            ["cameraIndex", "width", "height", "imageBuffer"], ["imageBuffer"]]
        assert device.help("noSuchMethod") == []
        assert device.module_help()[0] == DEVICE


CHILD = r"""
import sys
from oxclient import OXProxy
port, client = int(sys.argv[1]), sys.argv[2]
device = OXProxy("OXVideoDevice", "127.0.0.1", port, name=client, timeout_ms=10000)
device.putImage(0, 320, 240, bytes(320 * 240 * 3))
assert device.subscribeCamera("VideoMonitorGestura", 0, 1, 11, 30) == "VideoMonitorGestura"
assert device.subscribeCameras("Multi", [0, 1], [1, 1], [11, 11], 30) == "Multi"
print("ready", flush=True)
if sys.stdin.readline():  # resumed: the session ended meanwhile, the proxy says hello again
    print(device.getActiveCamera(), flush=True)
    device.close()
"""
SUBSCRIBERS = ("VideoMonitorGestura", "Multi")


def start_child(broker, client):
    child = subprocess.Popen([sys.executable, "-c", CHILD, str(broker.port), client],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             env=child_environment())
    assert child.stdout.readline() == b"ready\n"
    return child


def registered(device, name):
    """Whether the device has a subscriber of that name: a new one would get another name."""
    given = device.subscribeCamera(name, 0, 1, 11, 30)
    device.unsubscribe(given)
    return given != name


def announced(broker, client):
    return len(re.findall(r"client %s .*; raising ClientDisconnected" % client, broker.log()))


class TestClientGoesAway:
    """Whatever way a client goes, the broker announces it once its last session ends and
    unsubscribes what it subscribed; with --keep-subscribers only the device's own rule (the video
    monitor of "Gestura") cleans up."""

    @pytest.mark.parametrize("client,how,keep,dropped", [
        ("Gestura", signal.SIGSTOP, False, SUBSCRIBERS),
        ("Other", signal.SIGKILL, False, SUBSCRIBERS),
        ("Gestura", signal.SIGKILL, True, ("VideoMonitorGestura",)),
        ("Other", signal.SIGKILL, True, ()),
    ], ids=["silent", "killed", "kept-but-Gestura", "kept"])
    def test_subscribers_follow_the_client(self, start_broker, client, how, keep, dropped):
        broker = start_broker(**({"keep_subscribers": True} if keep else {}))
        with OXProxy(DEVICE, broker.host, broker.port, name="pytest", timeout_ms=10000) as device:
            child = start_child(broker, client)
            try:
                child.send_signal(how)
                assert poll_until(lambda: announced(broker, client) == 1), broker.log()
                assert poll_until(lambda: not any(registered(device, name) for name in dropped))
                kept = [name for name in SUBSCRIBERS if name not in dropped]
                assert all(registered(device, name) for name in kept)
                # This test's own client sat idle all along: its process answers the heartbeats,
                # so its session is still there.
                assert announced(broker, "pytest") == 0, broker.log()
            finally:
                child.kill()
                child.wait(5)
                child.stdin.close()
                child.stdout.close()

    def test_stopped_client_that_resumes_is_announced_again_when_it_ends(self, broker):
        child = start_child(broker, "Sleeper")
        try:
            child.send_signal(signal.SIGSTOP)
            assert poll_until(lambda: announced(broker, "Sleeper") == 1), broker.log()
            child.send_signal(signal.SIGCONT)
            child.stdin.write(b"go on\n")
            child.stdin.flush()
            assert child.stdout.readline() == b"0\n"
            assert child.wait(10) == 0
            assert poll_until(lambda: announced(broker, "Sleeper") == 2), broker.log()
        finally:
            child.kill()
            child.wait(5)
            child.stdin.close()
            child.stdout.close()

    def test_a_name_is_announced_when_its_last_session_ends(self, broker):
        first = OXProxy("OXMemory", broker.host, broker.port, name="Twin", timeout_ms=10000)
        second = OXProxy("OXMemory", broker.host, broker.port, name="Twin", timeout_ms=10000)
        first.close()
        assert broker.wait_for_log("client Twin said goodbye; another session still uses that name")
        assert announced(broker, "Twin") == 0
        second.close()
        assert poll_until(lambda: announced(broker, "Twin") == 1), broker.log()
