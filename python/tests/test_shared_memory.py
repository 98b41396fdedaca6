"""The same-host channel: results identical to the socket's, areas that go when their client
does, refusals with a reason and a fallback to the socket, ipc and CURVE alike."""

import os
import signal
import subprocess
import sys
import time

import pytest

from conftest import broker_binary
from helpers import child_environment, poll_until
from oxclient import OXError, OXProxy

THRESHOLD = 64 * 1024
VALUE = [None, True, -7, 2.5, "text", b"", bytes(range(100)), bytes(range(200)) * 25,
         bytes(range(256)) * 256,
         [bytes(reversed(range(256))) * 1024, [], "x", b"\x07" * (3 * THRESHOLD)]]


def plain(value):
    """A received value with its memoryviews as bytes."""
    if isinstance(value, memoryview):
        return value.tobytes()
    if isinstance(value, list):
        return [plain(item) for item in value]
    return value


# A binary read back from the wrong place of the ring, or a view that is not the bytes sent, would
# pass a test of one-colour images; every kind must come back byte for byte, over ipc too.
@pytest.mark.parametrize("options", [dict(shared_memory=False), dict(shared_memory=True),
                                     dict(shared_memory=True, views=True),
                                     dict(shared_memory=True, unix_socket=False)],
                         ids=["socket", "copied", "views", "copied-over-zeromq"])
def test_every_kind_of_value_comes_back_byte_identical(start_broker, tmp_path, options):
    path = tmp_path / "broker.sock"
    broker = start_broker(ipc=path)
    for host in (broker.host, "ipc://%s" % path):
        with OXProxy("OXMemory", host, broker.port, **options) as memory:
            assert memory.shared_memory is options["shared_memory"]
            assert memory.unix_socket is (memory.shared_memory
                                          and options.get("unix_socket", True))
            memory.insertData("all", VALUE)
            held = memory.getData("all")
            for _ in range(3):  # the ring is used again
                assert plain(memory.getData("all")) == VALUE
            memory.insertData("other", [b"\xff" * 6000])
            assert plain(memory.getData("other")) == [b"\xff" * 6000]
            # Copies, and binaries that came as frames, are the caller's for good.
            assert plain(held if not options.get("views") else held[7]) == (
                VALUE if not options.get("views") else VALUE[7])


HOLDER = r"""
import sys
import time
from oxclient import OXProxy
memory = OXProxy("OXMemory", "127.0.0.1", int(sys.argv[1]), shared_memory=True, views=True)
assert memory.unix_socket
memory.insertData("big", bytes(1 << 20))
held = memory.getData("big")
print(len(held), flush=True)
sys.stdin.readline()
"""


def descriptors(pid):
    return len(os.listdir("/proc/%d/fd" % pid))


# An area left behind by a client that died would leak the host's memory and descriptors with
# every crash of a vision process.
def test_a_client_killed_while_holding_a_view_leaves_no_area(broker):
    pid = broker.process.pid
    start, shm = descriptors(pid), set(os.listdir("/dev/shm"))
    child = subprocess.Popen([sys.executable, "-c", HOLDER, str(broker.port)],
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             env=child_environment())
    try:
        assert child.stdout.readline() == b"1048576\n"
        assert descriptors(pid) > start  # the area, and the connections
        child.send_signal(signal.SIGKILL)
        child.wait(5)
        assert poll_until(lambda: descriptors(pid) == start), (descriptors(pid), start)
        assert set(os.listdir("/dev/shm")) == shm
    finally:
        child.kill()
        child.wait(5)
        child.stdin.close()
        child.stdout.close()


# A client that must have an area, and cannot, has to learn why at once; one that may do without
# must carry on through the socket; and a host elsewhere must never be asked.
def test_refusals_say_why_and_fall_back_to_the_socket(start_broker):
    broker = start_broker(shared_memory_bytes=0)
    with OXProxy("OXMemory", broker.host, broker.port) as memory:
        assert memory.shared_memory is False
        memory.insertData("big", bytes(THRESHOLD))
        assert memory.getData("big") == bytes(THRESHOLD)
    with pytest.raises(OXError, match="shared memory is not offered by this host"):
        OXProxy("OXMemory", broker.host, broker.port, shared_memory=True)
    with pytest.raises(OXError, match="shared memory needs a broker host on this machine, not "
                                      "tcp://192.0.2.1:7761"):
        OXProxy("OXMemory", "192.0.2.1", 7761, shared_memory=True)
    for mode, code, text in (("require", 2, "shared memory is not offered by this host"),
                             ("auto", 0, ""), ("sometimes", 1, "expected auto, never or require")):
        called = subprocess.run([str(broker_binary().parent / "oxcall"), "--url", broker.url,
                                 "--shared-memory", mode, "OXMemory", "getData", "\"k\""],
                                capture_output=True, text=True, timeout=30)
        assert called.returncode == code and text in called.stderr, called.stderr

    broker = start_broker(shared_memory_bytes=1 << 20, max_shared_memory_bytes=1 << 20)
    with OXProxy("OXMemory", broker.host, broker.port) as first:
        assert first.shared_memory is True
        with OXProxy("OXMemory", broker.host, broker.port) as second:
            assert second.shared_memory is False
            second.ping()
        with pytest.raises(OXError, match="at most 1048576 bytes of areas for all clients"):
            OXProxy("OXMemory", broker.host, broker.port, shared_memory=True)


# The area must not become a way around the keys: a client the broker does not admit never gets
# as far as hello, and one it admits gets its area as any other.
def test_curve_clients_get_areas_and_others_nothing(start_broker, tmp_path):
    keygen = str(broker_binary().parent / "oxkeygen")
    for name in ("broker", "friend"):
        made = subprocess.run([keygen, str(tmp_path / name), "--name", name],
                              capture_output=True, text=True, timeout=30)
        assert made.returncode == 0, made.stderr
    broker = start_broker(curve_secret=tmp_path / "broker" / "broker.key",
                          allow_keys=tmp_path / "friend")
    with pytest.raises(OXError, match="no reply from"):
        OXProxy("OXMemory", "127.0.0.1", broker.port, timeout_ms=400, shared_memory=True)
    with OXProxy("OXMemory", "127.0.0.1", broker.port, shared_memory=True,
                 server_key=str(tmp_path / "broker" / "broker.pub"),
                 client_key=str(tmp_path / "friend" / "friend.key")) as memory:
        memory.insertData("big", bytes(range(256)) * 512)
        assert memory.getData("big") == bytes(range(256)) * 512


# ZeroMQ removes an existing socket file before it binds: a second broker would silently take the
# address of one that still serves, and a stopped one would leave its file behind.
def test_an_ipc_path_is_never_taken_from_a_running_broker_and_goes_at_stop(start_broker,
                                                                           tmp_path):
    path = tmp_path / "broker.sock"
    broker = start_broker(ipc=path)
    second = subprocess.run([str(broker_binary()), "--port", "0", "--ipc", str(path)],
                            capture_output=True, text=True, timeout=30)
    assert second.returncode == 1
    assert "cannot listen on ipc://%s: Address already in use" % path in second.stderr
    with OXProxy("OXMemory", "ipc://%s" % path, shared_memory=True) as memory:
        memory.ping()
    assert broker.stop() == 0
    assert not path.exists()


# The Unix socket's waits are the client's own polls: a call that outlasts its timeout must end
# on time with the same error as over ZeroMQ, and the proxy carry on through ZeroMQ.
def test_a_slow_call_over_the_unix_socket_times_out_on_time(broker):
    with OXProxy("OXVideoDevice", broker.host, broker.port, timeout_ms=300) as device:
        name = device.subscribeCamera("slow", 0, 1, 11, 30)  # no frame ever comes
        assert device.unix_socket
        start = time.monotonic()
        with pytest.raises(OXError, match="no answer to \"call\" within 300 ms"):
            device.getImageRemote(name)
        assert 0.3 <= time.monotonic() - start < 0.9  # the host gives up after a second
        assert not device.unix_socket
        device.timeout_ms = 5000  # the late reply is skipped, the next call answered
        device.unsubscribe(name)
