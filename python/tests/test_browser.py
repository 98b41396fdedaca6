"""The pages in a real browser: headless Chromium (Debian's), driven through its DevTools
protocol, shows the method page with every publication and a live view of oxsim's moving scene.
Screenshots are left in <build>/screenshots/."""

import base64
import io
import itertools
import json
import os
import shutil
import subprocess
import time
import urllib.request

import pytest
import websocket
from PIL import Image, ImageChops, ImageStat

from conftest import build_dir
from helpers import poll_until

CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update",
                  "--disable-sync", "--window-size=1280,1000", "--remote-debugging-port=0"]
DEADLINE_S = 15


class Browser:
    """One Chromium page, driven through the DevTools protocol."""

    def __init__(self, profile):
        binary = shutil.which("chromium")
        self.process = subprocess.Popen([binary, *CHROMIUM_FLAGS, "--user-data-dir=%s" % profile,
                                         "about:blank"], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.socket = None
        try:
            self.socket = self._connect(profile / "DevToolsActivePort")
        except BaseException:
            self.close()
            raise
        self.ids = itertools.count(1)

    @staticmethod
    def _connect(active):
        assert poll_until(lambda: active.exists() and len(active.read_text().split()) == 2,
                          DEADLINE_S), "chromium did not open its DevTools port"
        port = active.read_text().split()[0]
        with urllib.request.urlopen("http://127.0.0.1:%s/json/list" % port, timeout=5) as reply:
            page = next(t for t in json.load(reply) if t["type"] == "page")
        return websocket.create_connection(page["webSocketDebuggerUrl"], timeout=DEADLINE_S)

    def send(self, method, **params):
        request = next(self.ids)
        self.socket.send(json.dumps({"id": request, "method": method, "params": params}))
        deadline = time.monotonic() + DEADLINE_S
        while time.monotonic() < deadline:  # events come in between; the reply has the id
            message = json.loads(self.socket.recv())
            if message.get("id") == request:
                assert "error" not in message, message
                return message["result"]
        raise AssertionError("chromium did not answer %s within %d s" % (method, DEADLINE_S))

    def evaluate(self, expression):
        result = self.send("Runtime.evaluate", expression=expression, returnByValue=True)
        return result["result"].get("value")

    def wait_for(self, expression):
        """Polls a JavaScript expression until it is true; its last value."""
        def value():
            try:
                return self.evaluate(expression)
            except (AssertionError, KeyError):
                return None  # the page is still being replaced
        return poll_until(value, DEADLINE_S, 0.1)

    def screenshot(self, path, selector=None):
        clip = {}
        if selector:
            box = self.evaluate("JSON.stringify(document.querySelector('%s')"
                                ".getBoundingClientRect())" % selector)
            box = json.loads(box)
            clip = {"clip": {"x": box["x"], "y": box["y"], "width": box["width"],
                             "height": box["height"], "scale": 1}}
        data = base64.b64decode(self.send("Page.captureScreenshot", format="png", **clip)["data"])
        path.write_bytes(data)
        image = Image.open(io.BytesIO(data)).convert("RGB")
        if selector:  # without the element's 1-pixel border
            image = image.crop((1, 1, image.width - 1, image.height - 1))
        return image

    def close(self):
        if self.socket is not None:
            self.socket.close()
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture
def browser(tmp_path):
    if shutil.which("chromium") is None:
        pytest.skip("no chromium on PATH: scripts/install-deps installs Debian's chromium package")
    opened = Browser(tmp_path / "profile")
    yield opened
    opened.close()


@pytest.fixture
def shots():
    folder = build_dir() / "screenshots"
    folder.mkdir(parents=True, exist_ok=True)
    return folder


def live_subscribers(broker):
    with urllib.request.urlopen(broker.http_url + "/api/devices/OXVideoDevice", timeout=5) as r:
        entries = json.load(r)["kinds"].get("subscriber", [])
    return [e for e in entries if "liveView" in e]


# Guards against a method page that loses publications or their order, or whose search does not
# narrow them.
def test_method_page_lists_every_publication(scene, browser, shots):
    browser.send("Page.navigate", url=scene.http_url + "/modules/OXVideoDevice")
    assert browser.wait_for("document.querySelectorAll('.publication').length === 84")
    assert browser.evaluate("document.getElementById('count').textContent") == "84 publications"
    names = browser.evaluate("[...document.querySelectorAll('.publication h3')]"
                             ".map(h => h.textContent.split(' ')[1].split('(')[0])")
    assert names[:3] == ["unsubscribe", "getCameraModel", "startFrameGrabber"]
    browser.screenshot(shots / "modules-OXVideoDevice.png")
    browser.evaluate("const s = document.getElementById('search'); s.value = 'releaseImage';"
                     "s.dispatchEvent(new Event('input'))")
    shown = browser.evaluate("[...document.querySelectorAll('.publication:not([hidden]) h3')]"
                             ".map(h => h.textContent.split(' ')[1].split('(')[0])")
    assert {"releaseImage", "releaseImages"} <= set(shown) and len(shown) < 10
    assert browser.evaluate("document.getElementById('count').textContent") == (
        "%d of 84 publications" % len(shown))


# Guards against a live view that shows no image, a still one or a flat one, that is not shown
# as a subscriber of its own, or that stays subscribed once its page is gone.
def test_live_view_shows_the_moving_scene(scene, browser, shots):
    browser.send("Page.navigate",
                 url=scene.http_url + "/live?resolution=vga&colorspace=yuv422&fps=15")
    assert browser.wait_for("document.getElementById('live').naturalWidth === 640")
    # The frame rate and image age that the host measured, drawn beside the image.
    assert browser.wait_for("Math.abs(parseFloat(document.getElementById('rate').textContent)"
                            " - 15) < 3")
    assert browser.wait_for("document.getElementById('age').textContent.endsWith(' ms')")
    first = browser.screenshot(shots / "live-1.png", "#live")
    time.sleep(0.5)
    second = browser.screenshot(shots / "live-2.png", "#live")
    assert first.size == (640, 480)
    assert ImageChops.difference(first, second).getbbox() is not None, "the image did not move"
    assert max(ImageStat.Stat(first).stddev) > 10, "the image is one flat colour"
    browser.screenshot(shots / "live-page.png")
    views = live_subscribers(scene)
    assert len(views) == 1 and views[0]["fields"]["colorSpaces"] == "9"
    assert "subscribed as " + views[0]["id"] in browser.evaluate(
        "document.getElementById('subscriber').textContent")
    browser.send("Page.navigate", url="about:blank")
    assert poll_until(lambda: live_subscribers(scene) == [], 10)
