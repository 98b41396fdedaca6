"""The proxy's side of the exchange, against a scripted ROUTER standing in for the broker."""

import os
import threading
import time

import msgpack
import pytest
import zmq

from oxclient import OXError, OXProxy
from oxclient import _wire


class Raw(list):
    """Frames sent as they are, for replies the client's own encoder would refuse."""


class FakeBroker:
    """Answers each request with what script(request) returns: a list of replies (each a header
    value), sent in that order. Records the decoded requests."""

    def __init__(self, script):
        self.script = script
        self.requests = []
        self.headers = []
        self.socket = zmq.Context.instance().socket(zmq.ROUTER)
        self.socket.setsockopt(zmq.LINGER, 0)
        self.port = self.socket.bind_to_random_port("tcp://127.0.0.1")
        self.running = True
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while self.running:
            if not self.socket.poll(20):
                continue
            identity, *frames = self.socket.recv_multipart()
            request = _wire.decode(frames)
            self.requests.append(request)
            self.headers.append(frames[0])
            for reply in self.script(request):
                frames = list(reply) if isinstance(reply, Raw) else _wire.encode(reply)
                self.socket.send_multipart([identity] + frames)

    def stop(self):
        self.running = False
        self.thread.join(2)
        self.socket.close(0)


def polite(request):
    """A broker that answers everything, hello with a module list, call with its arguments."""
    version, request_id, op = request[:3]
    if op == "hello":
        return [[1, request_id, "ok", ["fake", ["M"]]]]
    if op == "call" and request[4] == "fails":
        return [[1, request_id, "error", ["M", "fails()", "it failed", "m.cpp", 12]]]
    if op == "call" and request[4] == "late":
        # A reply to an earlier id and the broker's probe (id 0) first: the proxy must skip them.
        return [[1, request_id - 1, "ok", "stale"], [1, 0, "ping", None],
                [1, request_id, "ok", "fresh"]]
    if op == "call":
        return [[1, request_id, "ok", request[5]]]
    return [[1, request_id, "ok", None]]


@pytest.fixture
def fake():
    brokers = []

    def start(script=polite):
        brokers.append(FakeBroker(script))
        return brokers[-1]

    yield start
    for broker in brokers:
        broker.stop()


class TestRequests:
    def test_hello_call_and_bye_frames(self, fake):
        broker = fake()
        with OXProxy("M", port=broker.port, name="tester", timeout_ms=2000) as proxy:
            assert proxy.broker_name == "fake"
            assert proxy.doIt(True, 2, "three", [b"4"]) == [True, 2, "three", [b"4"]]
            assert proxy.call("doIt") == []
        ids = [request[1] for request in broker.requests]
        assert len(set(ids)) == len(ids)
        # A host on this machine is asked for a shared-memory area and its Unix socket; one that
        # offers none (as this one, of an older kind) is used through ZeroMQ.
        assert not proxy.shared_memory
        assert [request[:1] + request[2:] for request in broker.requests] == [
            [1, "hello", "tester", "M", True, True],
            [1, "call", "M", "doIt", [True, 2, "three", [b"4"]]],
            [1, "call", "M", "doIt", []],
            [1, "bye"],
        ]

    def test_error_reply_is_raised_with_its_five_fields(self, fake):
        proxy = OXProxy("M", port=fake().port, timeout_ms=2000)
        with pytest.raises(OXError) as caught:
            proxy.fails()
        assert str(caught.value) == "M::fails(): it failed (m.cpp:12)"
        assert caught.value.line == 12
        proxy.close()

    def test_stale_replies_are_skipped(self, fake):
        proxy = OXProxy("M", port=fake().port, timeout_ms=2000)
        assert proxy.late() == "fresh"
        assert proxy.echo(5) == [5]  # nothing left behind to confuse the next call
        proxy.close()

    def test_refused_arguments_never_reach_the_broker(self, fake):
        broker = fake()
        proxy = OXProxy("M", port=broker.port, timeout_ms=2000)
        with pytest.raises(OXError, match="signed 32-bit"):
            proxy.doIt(2 ** 31)
        assert [request[2] for request in broker.requests] == ["hello"]
        proxy.close()

    def test_private_names_are_not_remote_methods(self, fake):
        proxy = OXProxy("M", port=fake().port, timeout_ms=2000)
        with pytest.raises(AttributeError):
            proxy.__wrapped__
        proxy.close()
        with pytest.raises(OXError, match="closed"):
            proxy.doIt()
        proxy.close()  # twice is harmless


class TestNoAnswer:
    def test_silent_broker_times_out_with_the_address(self, fake):
        broker = fake(lambda request: [])
        start = time.monotonic()
        with pytest.raises(OXError) as caught:
            OXProxy("M", port=broker.port, timeout_ms=300)
        assert time.monotonic() - start < 2.0
        assert caught.value.description.startswith(
            "no reply from tcp://127.0.0.1:%d: " % broker.port)

    def test_nobody_listening_times_out_too(self):
        with zmq.Context.instance().socket(zmq.ROUTER) as probe:
            port = probe.bind_to_random_port("tcp://127.0.0.1")
        with pytest.raises(OXError, match="no reply from tcp://127.0.0.1:%d" % port):
            OXProxy("M", port=port, timeout_ms=200)

    def test_close_does_not_hang_when_bye_is_not_answered(self, fake):
        broker = fake(lambda request: polite(request) if request[2] == "hello" else [])
        proxy = OXProxy("M", port=broker.port, timeout_ms=30000)
        start = time.monotonic()
        proxy.close()
        assert time.monotonic() - start < 3.0
        assert proxy.closed

    def test_unreadable_reply_is_an_error_not_a_hang(self, fake):
        def garbage(request):
            return [Raw([msgpack.packb({"not": "a reply"})])]
        with pytest.raises(OXError, match="malformed message: a map"):
            OXProxy("M", port=fake(garbage).port, timeout_ms=2000)

    def test_error_under_another_id_is_not_taken_for_the_pending_request(self, fake):
        def refuses(request):
            if request[2] == "hello":
                return polite(request)
            return [[1, -1, "error", ["OXBroker", "decode", "message too large: 9 bytes", "", 0]]]
        proxy = OXProxy("M", port=fake(refuses).port, timeout_ms=300)
        with pytest.raises(OXError, match="no reply from"):
            proxy.doIt(b"x")
        proxy.close()


# After ZeroMQ reconnected by itself the broker knows no session of the connection: the proxy
# must say hello again and send the refused request once more, and only once.
def test_unknown_session_is_introduced_again_and_the_request_sent_once_more(fake):
    hellos = []

    def forgets(request):
        if request[2] == "hello":
            hellos.append(request[3])
            return polite(request)
        if request[2] == "call" and (request[4] == "always" or len(hellos) < 2):
            return [[1, request[1], "error",
                     ["OXBroker", "call", "unknown session: say hello first", "", 0]]]
        return polite(request)

    broker = fake(forgets)
    proxy = OXProxy("M", port=broker.port, timeout_ms=2000)
    assert proxy.name.endswith("-%d" % os.getpid())  # the default name is the process's own
    assert proxy.echo(7) == [7]
    assert hellos == [proxy.name, proxy.name]
    with pytest.raises(OXError, match="unknown session"):
        proxy.always()
    assert len(hellos) == 3
    proxy.close()


# A call repeated with equal arguments reuses its encoded request: 1 and True, or 0.0 and -0.0,
# are equal in Python but not on the wire, and the id changes size as it grows.
def test_repeated_calls_send_exactly_what_the_encoder_makes(fake):
    broker = fake()
    proxy = OXProxy("M", port=broker.port, timeout_ms=2000)
    cases = [(1,), (True,), (1,), (0,), (False,), (None,), ("x",), (1, True), (True, 1),
             (0.0,), (-0.0,), (2 ** 31 - 1,), ([1],), ([True],), ()]
    for index in range(300):  # ids past 127 and 255; more distinct requests than are kept
        args = cases[index % len(cases)] if index % 3 else ("s%d" % index,)
        result = proxy.echo(*args)
        assert result == list(args)
        assert [(type(v), repr(v)) for v in result] == [(type(v), repr(v)) for v in args]
    with pytest.raises(OXError, match="signed 32-bit"):
        proxy.echo(2 ** 31)
    proxy.close()
    for header, request in zip(broker.headers, broker.requests):
        assert header == _wire.encode(request)[0]


def test_raw_reply_frames_with_out_of_line_binary(fake):
    big = bytes(range(256)) * 64

    def sends_big(request):
        if request[2] == "call":
            return [[1, request[1], "ok", [big, b"small"]]]
        return polite(request)

    proxy = OXProxy("M", port=fake(sends_big).port, timeout_ms=2000)
    assert proxy.get() == [big, b"small"]
    proxy.close()
