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


@pytest.fixture
def device(broker):
    with OXProxy(DEVICE, broker.host, broker.port, name="pytest", timeout_ms=10000) as proxy:
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
port, client, subscriber = int(sys.argv[1]), sys.argv[2], sys.argv[3]
device = OXProxy("OXVideoDevice", "127.0.0.1", port, name=client, timeout_ms=10000)
device.putImage(0, 320, 240, bytes(320 * 240 * 3))
assert device.subscribeCamera(subscriber, 0, 1, 11, 30) == subscriber
print("ready", flush=True)
sys.stdin.read()
"""


class TestClientDisconnected:
    """The device drops the video monitor's subscription when the client "Gestura" goes away,
    however it goes; other clients going away leave it alone."""

    @pytest.mark.parametrize("client,how,dropped", [
        ("Gestura", signal.SIGSTOP, True),
        ("Gestura", signal.SIGKILL, True),
        ("Other", signal.SIGKILL, False),
    ], ids=["Gestura-silent", "Gestura-killed", "Other-killed"])
    def test_subscription_follows_the_client(self, broker, device, client, how, dropped):
        subscriber = "VideoMonitorGestura"
        child = subprocess.Popen(
            [sys.executable, "-c", CHILD,
             str(broker.port), client, subscriber],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=child_environment())
        try:
            assert child.stdout.readline() == b"ready\n"
            device.getImageRemote(subscriber)  # known: no error
            child.send_signal(how)
            mentioned = re.compile(r"\b%s\b" % client)
            assert poll_until(lambda: mentioned.search(broker.log())), broker.log()

            def gone():
                try:
                    device.getImageRemote(subscriber)
                    return False
                except OXError as error:
                    return error.description == (
                        "getDirectRawImageRemote(%s) : module %s unknown!"
                        % (subscriber, subscriber))

            assert poll_until(gone, deadline_s=10.0 if dropped else 0.5) == dropped
            # This test's own client sat idle all along: its process answers the heartbeats,
            # so its session is still there.
            assert not re.search(r"\bpytest\b", broker.log()), broker.log()
        finally:
            child.kill()
            child.wait(5)
            child.stdin.close()
            child.stdout.close()
