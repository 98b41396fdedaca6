"""Fixtures: a broker host process per test, started on a free port and stopped with SIGTERM."""

import json
import os
import selectors
import signal
import subprocess
import sys
import threading
import time
import urllib.request
from pathlib import Path

import pytest

from helpers import PYTHON_DIR, REPO, poll_until

sys.path.insert(0, str(PYTHON_DIR))

LISTEN_PREFIX = "oxbroker: listening on "
PAGES_PREFIX = "oxbroker: pages on "
START_DEADLINE_S = 10.0
STOP_DEADLINE_S = 5.0


def build_dir():
    return Path(os.environ.get("OX_BUILD_DIR", REPO / "build")).resolve()


def broker_binary():
    return build_dir() / "bin" / "oxbroker"


class Broker:
    """A running oxbroker: its address, its process and what it logged on stderr."""

    def __init__(self, prefs, options, cwd=None, env=None):
        self.bindir = str(broker_binary().parent)
        arguments = {"port": 0, "heartbeat-timeout": 400, "log-level": 4, "prefs": prefs,
                     "http": "127.0.0.1:0"}
        arguments.update({key.replace("_", "-"): value for key, value in options.items()})
        command = [str(broker_binary())]
        for key, value in arguments.items():
            command += ["--" + key] if value is True else ["--" + key, str(value)]
        self.command = command
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        stdin=subprocess.DEVNULL, cwd=cwd, env=env)
        self._log = []
        self._log_lock = threading.Lock()
        self._reader = threading.Thread(target=self._read_stderr, daemon=True)
        self._reader.start()
        self.url = self._wait_listening()
        self.host, port = self.url[len("tcp://"):].rsplit(":", 1)
        self.port = int(port)
        # The pages' address follows, after the ipc address if any, unless they are off.
        self.http_url = None
        if "ipc" in arguments:
            self.process.stdout.readline()
        if arguments["http"] != "off":
            line = self.process.stdout.readline().decode("utf-8", "replace").strip()
            if line.startswith(PAGES_PREFIX):
                self.http_url = line[len(PAGES_PREFIX):].rstrip("/")

    def _read_stderr(self):
        for line in iter(self.process.stderr.readline, b""):
            with self._log_lock:
                self._log.append(line.decode("utf-8", "replace"))

    def _wait_listening(self):
        deadline = time.monotonic() + START_DEADLINE_S
        selector = selectors.DefaultSelector()
        selector.register(self.process.stdout, selectors.EVENT_READ)
        try:
            while time.monotonic() < deadline:
                if selector.select(timeout=0.05):
                    line = self.process.stdout.readline().decode("utf-8", "replace").strip()
                    if line.startswith(LISTEN_PREFIX):
                        return line[len(LISTEN_PREFIX):]
                    if not line and self.process.poll() is not None:
                        break
        finally:
            selector.close()
        self.process.kill()
        self.process.wait()
        raise RuntimeError("%s did not report listening within %.0f s (exit %s); stderr:\n%s"
                           % (" ".join(self.command), START_DEADLINE_S, self.process.returncode,
                              self.log()))

    def log(self):
        """Everything the broker wrote on stderr so far."""
        with self._log_lock:
            return "".join(self._log)

    def wait_for_log(self, text, deadline_s=5.0):
        end = time.monotonic() + deadline_s
        while time.monotonic() < end:
            if text in self.log():
                return True
            time.sleep(0.02)
        return text in self.log()

    def stop(self):
        """SIGTERM, then kill after the deadline. Returns the exit code of the SIGTERM."""
        if self.process.poll() is not None:
            return self.process.returncode
        self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(STOP_DEADLINE_S)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "no exit within %.0f s of SIGTERM" % STOP_DEADLINE_S
        finally:
            self._reader.join(1.0)


@pytest.fixture
def start_broker():
    """start_broker(prefs=None, cwd=None, env=None, **options) starts a broker in the working
    directory cwd with the environment env; options are its command-line flags
    (heartbeat_timeout=1000 gives --heartbeat-timeout 1000, keep_subscribers=True gives
    --keep-subscribers). Each is stopped at teardown, which
    checks that it exited cleanly."""
    if not broker_binary().is_file():
        pytest.skip("no broker host at %s (set OX_BUILD_DIR to the build directory)"
                    % broker_binary())
    brokers = []

    def start(prefs=None, cwd=None, env=None, **options):
        broker = Broker(str(prefs or REPO / "share" / "preferences"), options, cwd, env)
        brokers.append(broker)
        return broker

    yield start
    failures = []
    for broker in brokers:
        code = broker.stop()
        if code != 0:
            failures.append("%s: exit %s after SIGTERM; stderr:\n%s"
                            % (broker.url, code, broker.log()))
    assert not failures, "\n".join(failures)


@pytest.fixture
def broker(start_broker):
    return start_broker()


@pytest.fixture
def filecam_prefs(tmp_path):
    """A preference directory whose video source is FileCam."""
    source = REPO / "share" / "preferences" / "VideoInput.xml"
    text = source.read_text()
    assert 'value="SimulatorCam"' in text
    (tmp_path / "VideoInput.xml").write_text(text.replace('value="SimulatorCam"',
                                                          'value="FileCam"'))
    return tmp_path


@pytest.fixture
def scene(broker):
    """A broker with its pages, fed by oxsim's moving scene (640x480 at 30 fps) until teardown."""
    oxsim = os.path.join(broker.bindir, "oxsim")
    if not os.path.isfile(oxsim):
        pytest.skip("no oxsim beside %s" % broker.bindir)
    assert broker.http_url, "the broker serves no pages:\n" + broker.log()
    sim = subprocess.Popen([oxsim, "--url", broker.url, "--quiet"], stdin=subprocess.DEVNULL)

    def pushing():
        with urllib.request.urlopen(broker.http_url + "/api/host", timeout=5) as reply:
            host = json.load(reply)
        return host["calls"] > 0 and any(s["name"].startswith("oxsim") for s in host["sessions"])
    assert poll_until(pushing, START_DEADLINE_S), "oxsim did not connect"
    yield broker
    sim.send_signal(signal.SIGTERM)
    try:
        sim.wait(STOP_DEADLINE_S)
    except subprocess.TimeoutExpired:
        sim.kill()
        sim.wait()
