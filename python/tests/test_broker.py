"""The client against a real broker host serving the video device."""

import re
import signal
import subprocess
import sys

import numpy as np
import pytest

from helpers import child_environment, poll_until
from oxclient import OXError, OXProxy, describe, image_to_numpy

DEVICE = "OXVideoDevice"
QVGA, RGB, FPS = 1, 11, 30
WIDTH, HEIGHT = 320, 240
COLOUR = (200, 100, 50)


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

    def test_unknown_module_is_refused_at_hello(self, broker):
        with pytest.raises(OXError) as caught:
            OXProxy("NoSuchModule", broker.host, broker.port, timeout_ms=5000)
        assert caught.value.module == "OXBroker"
        assert caught.value.description == (
            "no module named NoSuchModule is registered with broker oxbroker")


class TestIntrospection:
    # The texts of the table are pinned in-process (tests/data/method_table.txt) and the remote
    # description is compared with the in-process one (test_remote.cpp): here the client's view.
    def test_describe_methods_and_help_agree(self, device):
        described = describe(device)
        assert described["module"] == DEVICE
        assert len(described["methods"]) == 52 + 32
        names = [m["name"] for m in described["methods"]]
        assert device.methods() == list(dict.fromkeys(names))
        put_image = [m for m in described["methods"] if m["name"] == "putImage"]
        records = device.help("putImage")
        assert [[p[0] for p in record[4]] for record in records] == [
            [p["name"] for p in m["parameters"]] for m in put_image] == [
            ["cameraIndex", "width", "height", "imageBuffer"], ["imageBuffer"]]
        assert [p["type"] for p in put_image[0]["parameters"]] == ["int"] * 3 + ["OXValue"]
        assert put_image[0]["overload"] and put_image[0]["return"]["type"] == "bool"
        assert device.help("noSuchMethod") == []
        assert device.module_help()[0] == DEVICE
        assert any('OXProxy("OXVideoDevice", "127.0.0.1", 7761)' in example["text"]
                   for example in described["examples"])


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
