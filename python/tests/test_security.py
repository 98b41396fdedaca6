"""Who gets into the broker host: CURVE keys made by oxkeygen, used by the Python client and by
oxcall, and the refusal to listen beyond loopback without keys."""

import os
import stat
import subprocess

import pytest

from conftest import broker_binary
from oxclient import OXError, OXProxy

REFUSED_TIMEOUT_MS = 400


def program(name):
    return str(broker_binary().parent / name)


@pytest.fixture
def keys(tmp_path):
    """Key pairs made by oxkeygen: the broker's and a stranger's in own/, an allowed client's
    (friend) in allowed/. Returns a function of (name, extension) giving a key file."""
    folders = {"broker": "own", "stranger": "own", "friend": "allowed"}
    for name, folder in folders.items():
        made = subprocess.run([program("oxkeygen"), str(tmp_path / folder), "--name", name],
                              capture_output=True, text=True, timeout=30)
        assert made.returncode == 0, made.stderr
    return lambda name, extension: str(tmp_path / folders[name] / (name + extension))


# A refused key must cost its owner its answers, and a key readable by others or replaced by a
# second run would give an identity away or lock its clients out.
def test_only_allowed_keys_get_answers_from_python_and_oxcall(start_broker, keys, tmp_path):
    assert stat.S_IMODE(os.stat(keys("friend", ".key")).st_mode) == 0o600
    again = subprocess.run([program("oxkeygen"), str(tmp_path / "allowed"), "--name", "friend"],
                           capture_output=True, text=True, timeout=30)
    assert again.returncode == 2 and "is never replaced" in again.stderr

    broker = start_broker(curve_secret=keys("broker", ".key"),
                          allow_keys=os.path.dirname(keys("friend", ".pub")))
    server = keys("broker", ".pub")
    for client in (None, keys("stranger", ".key")):
        extra = {} if client is None else {"server_key": server, "client_key": client}
        with pytest.raises(OXError, match="no reply from"):
            OXProxy("OXMemory", "127.0.0.1", broker.port, timeout_ms=REFUSED_TIMEOUT_MS, **extra)
    assert broker.wait_for_log("is not among the allowed keys")
    with OXProxy("OXMemory", "127.0.0.1", broker.port, server_key=server,
                 client_key=keys("friend", ".key")) as memory:
        memory.insertData("k", 5)
        assert memory.getData("k") == 5

    def oxcall(*options):
        return subprocess.run([program("oxcall"), "--url", broker.url, "--timeout",
                               str(REFUSED_TIMEOUT_MS), *options, "OXMemory", "getData", '"k"'],
                              capture_output=True, text=True, timeout=30)

    allowed = oxcall("--server-key", server, "--client-key", keys("friend", ".key"))
    assert (allowed.returncode, allowed.stdout) == (0, "5\n")
    for options in ((), ("--server-key", server, "--client-key", keys("stranger", ".key"))):
        refused = oxcall(*options)
        assert refused.returncode == 2 and "no reply from" in refused.stderr


# Binding every interface without keys opened the camera and the data directory (or the pages)
# to the network.
def test_listening_beyond_loopback_needs_keys_or_insecure(start_broker):
    refused = subprocess.run([program("oxbroker"), "--bind", "0.0.0.0", "--port", "0"],
                             capture_output=True, text=True, timeout=30)
    assert refused.returncode == 1 and refused.stdout == ""
    assert "refusing to listen on 0.0.0.0 without keys" in refused.stderr
    assert "oxkeygen" in refused.stderr and "--insecure" in refused.stderr
    broker = start_broker(bind="0.0.0.0", insecure=True)
    assert broker.wait_for_log("warning: listening on 0.0.0.0 without encryption or authentication")
    with OXProxy("OXMemory", "127.0.0.1", broker.port) as memory:
        memory.ping()
    # The pages follow the same rule.
    refused = subprocess.run([program("oxbroker"), "--port", "0", "--http", "0.0.0.0:0"],
                             capture_output=True, text=True, timeout=30)
    assert refused.returncode == 1 and "refusing to serve pages on 0.0.0.0 without keys" in (
        refused.stderr)
    broker = start_broker(insecure=True, http="0.0.0.0:0")
    assert broker.wait_for_log("warning: serving pages on 0.0.0.0 without encryption")
    assert broker.http_url.startswith("http://0.0.0.0:")
