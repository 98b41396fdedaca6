"""Python client of the broker host ``oxbroker``: calls the published methods of its modules.

Usage::

    from oxclient import OXProxy, OXError, image_to_numpy

    cameraProxy = OXProxy("OXVideoDevice", "127.0.0.1", 7761)
    nameId = cameraProxy.subscribeCamera("pythonModule", 0, 1, 11, 30)  # QVGA, kRGB, 30 fps
    try:
        pixels = image_to_numpy(cameraProxy.getImageRemote(nameId))  # shape (240, 320, 3)
    except OXError as error:
        print(error)  # same text as OXError::toString() on the C++ side
    finally:
        cameraProxy.unsubscribe(nameId)
        cameraProxy.close()

Published methods are called as attributes of the proxy, with positional arguments; values map
as None <-> invalid, bool, int (signed 32-bit), float (sent as float 32), str, list/tuple ->
array, bytes/bytearray/memoryview -> binary (received as a read-only memoryview, which shares the
received bytes: ``bytes(value)`` makes a copy). The wire format is described in docs/protocol.md.

A broker host on this machine (a loopback or ``ipc://`` address) may send the large binaries of
its replies through a shared-memory area instead of the socket: see ``OXProxy``'s
``shared_memory`` and ``views``.
"""

import itertools
import os
import sys
import time

import zmq
from msgpack import packb as _packb

from . import _keys, _shm, _wire
from ._error import OXError

__all__ = ["OXProxy", "OXError", "describe", "describe_from_value", "image_to_numpy"]

DEFAULT_PORT = 7761
# How long close() waits for the broker to acknowledge "bye": the session ends anyway when the
# connection closes, the acknowledgement only makes the end prompt and ordered.
_BYE_TIMEOUT_MS = 1000


# The broker's answer to a request of a connection that has no session: ZeroMQ reconnected by
# itself after the connection dropped, under an identity the broker does not know.
_UNKNOWN_SESSION = "unknown session: say hello first"
# What the exchange over the session's Unix socket gives back when the request was not read.
_NOT_SENT = object()
# The start of an encoded call request, [1, id, "call", module, method, arguments]: the array's
# size and the version, the id follows.
_CALL_START = b"\x96\x01"
# Calls whose arguments are all of these exact types keep their encoded request, less its id, for
# the next call with the same arguments: for them, equal values of one type encode alike (floats
# do not: 0.0 == -0.0).
_CACHED_ARGUMENT_TYPES = frozenset((str, int, bool, type(None)))
# How many encoded requests a proxy keeps.
_CACHE_BOUND = 64


def _default_client_name():
    """The program's name and the process id: two processes never share a name by accident, and
    the broker announces one's end only when its last session ends."""
    program = os.path.basename(sys.argv[0]) if sys.argv and sys.argv[0] else "python"
    return "%s-%d" % (program or "python", os.getpid())


class OXProxy:
    """A connection to one module of a broker host.

    ``proxy.someMethod(a, b)`` calls the published method ``someMethod`` with the arguments
    ``[a, b]`` and returns its result; an error raised by the module is raised here as OXError.

    A proxy is not thread-safe: it sends one request and waits for its reply on a socket of its
    own. Threads that call at the same time should each make their own proxy.

    With ``server_key`` (the broker's NAME.pub) and ``client_key`` (this client's NAME.key, both
    made by oxkeygen) the connection is encrypted with CURVE; a broker that does not admit the
    key never answers (see docs/security.md).

    ``host`` may also be a whole address (``"ipc:///run/oxbroker.sock"``), ``port`` is then not
    used. ``shared_memory``: None uses a shared-memory area when the host is on this machine and
    offers one, False never asks, True fails (OXError) without one (docs/shared-memory.md).
    Binaries come back the same either way, as read-only memoryviews of bytes of their own; with
    ``views=True``, those that came through the area are views of it instead, valid only until
    the proxy's next call. With an area, requests and replies travel over a Unix socket of the
    session rather than ZeroMQ (faster, same results); ``unix_socket=False`` keeps them on ZeroMQ.
    """

    def __init__(self, module, host="127.0.0.1", port=DEFAULT_PORT, name=None,
                 timeout_ms=30000, server_key=None, client_key=None, shared_memory=None,
                 views=False, unix_socket=True):
        self._socket = None
        self._area = None
        self._calls = None
        self._unix_socket = unix_socket
        self.module = module
        if "://" in host:
            self.url = host
        else:
            self.url = ("tcp://[%s]:%d" if ":" in host else "tcp://%s:%d") % (host, port)
        self.name = _default_client_name() if name is None else name
        self.timeout_ms = timeout_ms
        self.views = views
        if shared_memory and not _shm.on_this_machine(self.url):
            raise OXError("OXProxy", "connect", "shared memory needs a broker host on this "
                          "machine, not %s" % self.url)
        self._shared_memory = shared_memory if _shm.on_this_machine(self.url) else False
        self._ids = itertools.count(1)  # id 0 is the broker's own
        self._timeout_set = None
        self._encoded_calls = {}
        socket = zmq.Context.instance().socket(zmq.DEALER)
        socket.setsockopt(zmq.LINGER, 0)
        self._socket = socket
        try:
            _keys.use_curve(socket, server_key, client_key)
        except BaseException:
            self._close_socket()
            raise
        socket.connect(self.url)
        try:
            self._hello()
        except BaseException:
            self._close_socket()
            raise

    @property
    def shared_memory(self):
        """Whether replies come through a shared-memory area."""
        return self._area is not None

    @property
    def unix_socket(self):
        """Whether requests and replies travel over the session's Unix socket."""
        return self._calls is not None

    # -- published methods

    def call(self, method, *args):
        """Calls the published method ``method`` with positional arguments."""
        return self._call(method, args)

    def __getattr__(self, method):
        # Private and special names are Python's own (copy, pickle, ...), never remote methods.
        if method.startswith("_"):
            raise AttributeError(method)

        def remote(*args):
            return self._call(method, args)

        remote.__name__ = method
        remote.__qualname__ = "OXProxy." + method
        return remote

    # -- introspection

    def methods(self):
        """The published method names, each once, in order of first publication."""
        return self._request("methods", self.module)

    def help(self, method):
        """Every publication of ``method``: a list of records (see docs/protocol.md)."""
        return self._request("help", self.module, method)

    def module_help(self):
        """``[module name, description, [[language, text], ...]]``."""
        return self.describe_value()[0]

    def describe_value(self):
        """The raw answer of "describe": ``[module help, [record, ...]]``."""
        return self._request("describe", self.module)

    def modules(self):
        """The names of the modules the broker hosts."""
        return self._request("modules")

    def ping(self):
        self._request("ping")

    # -- life cycle

    def close(self):
        """Ends the session (the broker then raises "ClientDisconnected") and the connection."""
        if self._socket is None:
            return
        try:
            self._request("bye", timeout_ms=min(self.timeout_ms, _BYE_TIMEOUT_MS))
        except (OXError, zmq.ZMQError):
            pass  # closing the connection ends the session all the same
        finally:
            self._close_socket()

    @property
    def closed(self):
        return self._socket is None

    def __enter__(self):
        return self

    def __exit__(self, *exc_info):
        self.close()

    def __del__(self):
        # Without the bye: at interpreter exit the broker may already be unreachable, and a
        # finaliser must not wait. The connection closing ends the session.
        try:
            self._close_socket()
        except Exception:
            pass

    def __repr__(self):
        return "OXProxy(%r, %r%s)" % (self.module, self.url, ", closed" if self.closed else "")

    def _close_socket(self):
        socket, self._socket = getattr(self, "_socket", None), None
        if socket is not None:
            socket.close(linger=0)
        self._drop_area()

    def _drop_area(self):
        calls, self._calls = getattr(self, "_calls", None), None
        if calls is not None:
            calls.close()
        area, self._area = getattr(self, "_area", None), None
        if area is not None:
            area.close()

    def _hello(self):
        """Says hello, asking for a shared-memory area unless shared_memory is False. Without
        one, a proxy that may do without carries on through the socket, and tells the host so
        with a hello that does not ask."""
        self._drop_area()
        ask = self._shared_memory is not False
        asks = ([True, True] if self._unix_socket else [True]) if ask else []
        reply = self._request("hello", self.name, self.module, *asks)
        self.broker_name, self.modules_at_hello = reply[0], reply[1]
        if not ask:
            return
        offer = reply[2] if len(reply) > 2 else "shared memory is not offered by this host"
        if isinstance(offer, str):
            refusal = offer
        else:
            try:
                self._area = _shm.Area(offer)
                self._open_calls(offer, reply)
                return
            except OXError as error:
                refusal = error.description
        if self._shared_memory:
            raise OXError("OXProxy", "connect", refusal)
        if not isinstance(offer, str):
            self._request("hello", self.name, self.module)

    def _open_calls(self, offer, reply):
        """Connects the session's Unix socket when the host offers one; without, calls go
        through ZeroMQ."""
        door = reply[3] if len(reply) > 3 else None
        if isinstance(door, list) and door and isinstance(door[0], str):
            try:
                self._calls = _shm.Calls(door[0], bytes(offer[1]),
                                         min(self.timeout_ms, 5000) / 1000.0)
            except OXError:
                pass

    # -- the request/reply exchange

    def _request(self, op, *operands, what=None, timeout_ms=None):
        if self._socket is None:
            raise OXError("OXProxy", what or op, "the proxy on %s is closed" % self.module)
        if self._area is not None:
            self._area.release()  # the views of the last call end here
        request_id = next(self._ids)
        # Encoding first: a value the broker would refuse never leaves this process.
        frames = _wire.encode([_wire.PROTOCOL_VERSION, request_id, op] + list(operands))
        return self._run(op, request_id, frames, what, timeout_ms)

    def _call(self, method, args):
        """call(), with the encoded request of a call repeated with the same arguments taken
        from the proxy's cache."""
        if self._socket is None:
            raise OXError("OXProxy", method or "call", "the proxy on %s is closed" % self.module)
        if self._area is not None:
            self._area.release()  # the views of the last call end here
        request_id = next(self._ids)
        module = self.module
        types = tuple(map(type, args))
        if (type(module) is str and type(method) is str and request_id <= _wire.INT_MAX
                and _CACHED_ARGUMENT_TYPES.issuperset(types)):
            key = (module, method, args, types)
            rest = self._encoded_calls.get(key)
            if rest is None:
                # Encoded once in full, which refuses what the broker would refuse.
                packed = _wire.encode([_wire.PROTOCOL_VERSION, 0, "call", module, method,
                                       list(args)])[0]
                rest = packed[len(_CALL_START) + 1:]
                if len(self._encoded_calls) >= _CACHE_BOUND:
                    self._encoded_calls.clear()
                self._encoded_calls[key] = rest
            frames = [_CALL_START + _packb(request_id) + rest]
        else:
            frames = _wire.encode([_wire.PROTOCOL_VERSION, request_id, "call", module, method,
                                   list(args)])
        return self._run("call", request_id, frames, method, None)

    def _run(self, op, request_id, frames, what, timeout_ms):
        try:
            return self._exchange(op, request_id, frames, what, timeout_ms)
        except OXError as error:
            unknown = error.module == "OXBroker" and error.description == _UNKNOWN_SESSION
            if not unknown or op in ("hello", "bye"):
                raise
        # The broker ended the session of the dropped connection; the request was not run, so it
        # is sent once more after a new hello.
        self._hello()
        return self._exchange(op, request_id, frames, what, timeout_ms)

    def _exchange(self, op, request_id, frames, what, timeout_ms):
        timeout_ms = self.timeout_ms if timeout_ms is None else timeout_ms
        if self._calls is not None:
            reply = self._exchange_locally(op, request_id, frames, what, timeout_ms)
            if reply is not _NOT_SENT:
                return reply
        socket = self._socket
        if len(frames) == 1:
            socket.send(frames[0])
        else:
            socket.send_multipart(frames, copy=False)
        deadline = time.monotonic() + timeout_ms / 1000.0
        wait_ms = timeout_ms
        recv = socket.recv
        while True:
            # A receive timeout costs less than a poll on every call; it is set again only when
            # it changes.
            if wait_ms != self._timeout_set and wait_ms > 0:
                socket.setsockopt(zmq.RCVTIMEO, wait_ms)
                self._timeout_set = wait_ms
            if wait_ms <= 0:
                raise self._no_reply(op, what, timeout_ms)
            try:
                frame = recv(copy=False)
                received = [frame]
                while frame.more:
                    frame = recv(copy=False)
                    received.append(frame)
            except zmq.Again:
                raise self._no_reply(op, what, timeout_ms) from None
            # What is left for another message, should this one be for an earlier request.
            wait_ms = max(0, int((deadline - time.monotonic()) * 1000))
            mine, result = self._accept(received, request_id)
            if mine:
                return result

    def _exchange_locally(self, op, request_id, frames, what, timeout_ms):
        """The exchange over the session's Unix socket, or _NOT_SENT when the host closed it
        without reading the request (its session ended, or it stops): ZeroMQ then carries the
        request, and says whether the session is still there."""
        calls = self._calls
        deadline = time.monotonic() + timeout_ms / 1000.0
        try:
            calls.send(frames, deadline)
            while True:
                mine, result = self._accept(calls.receive(deadline), request_id)
                if mine:
                    return result
        except TimeoutError:
            started, timed_out = True, True
        except _shm.CallsClosed as closed:
            started, timed_out = closed.started, False
        except OSError:
            started, timed_out = True, False
        # The stream may be cut in the middle of a message: later calls go through ZeroMQ.
        self._calls = None
        calls.close()
        if timed_out:
            raise self._no_reply(op, what, timeout_ms)
        if started:
            raise OXError("OXProxy", what or op, "the connection to %s closed during a reply"
                          % self.url)
        return _NOT_SENT

    def _no_reply(self, op, what, timeout_ms):
        return OXError("OXProxy", what or op, "no reply from %s: no answer to \"%s\" within %d ms"
                       % (self.url, op, timeout_ms))

    def _accept(self, received, request_id):
        """(True, result) for the reply to request_id, (False, None) for another message; an
        error reply is raised."""
        area = self._area
        reply = _wire.decode(received, area, self.views)
        if area is not None and not self.views:
            area.release()  # copied out: the host may use the area again at once
        if not isinstance(reply, list) or len(reply) != 4:
            raise OXError("OXProxy", "decode", "malformed message: a reply that is not an "
                          "array of four elements")
        version, reply_id, status, result = reply
        if version != _wire.PROTOCOL_VERSION:
            raise OXError("OXProxy", "decode",
                          "unsupported protocol version %r in a reply" % (version,))
        # Any other id is a late reply to a request that timed out, or the broker asking
        # whether this connection is still there (id 0).
        if reply_id != request_id:
            return False, None
        if status == "ok":
            return True, result
        if status == "error":
            raise _error_from_fields(result)
        raise OXError("OXProxy", "decode", "malformed message: unknown reply status %r"
                      % (status,))


def _error_from_fields(fields):
    well_formed = (isinstance(fields, list) and len(fields) == 5
                   and all(isinstance(field, str) for field in fields[:4])
                   and isinstance(fields[4], int) and not isinstance(fields[4], bool))
    if not well_formed:
        raise OXError("OXProxy", "decode", "malformed message: an error reply without its five "
                      "fields")
    return OXError(*fields)


# -- introspection as plain data

def _pairs(value, what):
    if not isinstance(value, list):
        raise ValueError("%s: expected an array, got %r" % (what, value))
    for pair in value:
        if not isinstance(pair, list) or len(pair) != 2:
            raise ValueError("%s: expected [language, text] pairs, got %r" % (what, pair))
    return [{"language": language, "text": text} for language, text in value]


def _record(record):
    if not isinstance(record, list) or len(record) != 8:
        raise ValueError("a publication record has 8 fields, got %r" % (record,))
    name, class_name, description, flags, params, returned, examples, binding = record
    if not isinstance(params, list) or any(
            not isinstance(param, list) or len(param) != 3 for param in params):
        raise ValueError("%s: parameters must be [name, description, type] triples" % name)
    if not isinstance(returned, list) or len(returned) != 3:
        raise ValueError("%s: the return must be [name, description, type]" % name)
    if binding not in ("bindMethod", "bindMethodOverload"):
        raise ValueError("%s: unknown binding %r" % (name, binding))
    return {
        "name": name,
        "class": class_name,
        "description": description,
        "flags": flags,
        "parameters": [{"name": p[0], "description": p[1], "type": p[2]} for p in params],
        "return": {"name": returned[0], "description": returned[1], "type": returned[2]},
        "examples": _pairs(examples, name + " examples"),
        "overload": binding == "bindMethodOverload",
    }


def describe_from_value(value):
    """Turns the result of the "describe" operation into dicts and lists (JSON-ready)."""
    if not isinstance(value, list) or len(value) != 2:
        raise ValueError("a description is [module help, records], got %r" % (value,))
    module_help, records = value
    if not isinstance(module_help, list) or len(module_help) != 3:
        raise ValueError("module help is [name, description, examples], got %r" % (module_help,))
    if not isinstance(records, list):
        raise ValueError("the publications must be an array")
    return {
        "module": module_help[0],
        "description": module_help[1],
        "examples": _pairs(module_help[2], "module examples"),
        "methods": [_record(record) for record in records],
    }


def describe(proxy):
    """The module's help and its whole method table, in publication order, as dicts."""
    return describe_from_value(proxy.describe_value())


# -- images

_IMAGE_FIELDS = 12
_numpy = None
_UINT8 = None


def image_to_numpy(value):
    """The pixels of an image array (as getImageRemote returns it) as a (height, width, layers)
    uint8 array.

    The array shares the received bytes (no copy), so it is read-only; take ``.copy()`` to
    modify it. Raises ValueError when the value is not an image or its sizes disagree.
    """
    global _numpy, _UINT8
    numpy = _numpy
    if numpy is None:
        import numpy  # only the image helpers need it

        _numpy, _UINT8 = numpy, numpy.dtype(numpy.uint8)
    if not isinstance(value, (list, tuple)) or len(value) != _IMAGE_FIELDS:
        raise ValueError("an image is an array of %d values, got %s"
                         % (_IMAGE_FIELDS, _short(value)))
    width, height, layers = value[0], value[1], value[2]
    if not (type(width) is int and type(height) is int and type(layers) is int
            and width >= 0 and height >= 0 and layers >= 0):
        for label, field in (("width", width), ("height", height), ("layers", layers)):
            if not isinstance(field, int) or isinstance(field, bool) or field < 0:
                raise ValueError("image %s must be a non-negative int, got %r" % (label, field))
    pixels = value[6]
    if type(pixels) is memoryview:
        size = pixels.nbytes
    elif isinstance(pixels, (bytes, bytearray, memoryview)):
        size = memoryview(pixels).nbytes
    else:
        raise ValueError("image pixels must be a binary, got %s" % type(pixels).__name__)
    if size != width * height * layers:
        raise ValueError("image of %dx%dx%d needs %d bytes, got %d"
                         % (width, height, layers, width * height * layers, size))
    # frombuffer keeps the buffer itself, so a view of the area stays mapped while the array
    # lives (an ndarray made with buffer= would keep only the object behind it).
    return numpy.frombuffer(pixels, _UINT8).reshape(height, width, layers)


def _short(value):
    text = repr(value)
    return text if len(text) <= 80 else text[:77] + "..."
