"""The same-host channel: the shared-memory area through which a broker host on this machine sends
the large binaries of its replies (docs/protocol.md, "Shared memory").

The host offers an area at hello: the name of its door (an abstract Unix socket), a one-time token,
the area's size and the threshold from which binaries go there. The client trades the token for
the area's descriptor at the door and maps it. A reply then names a binary by its position in the
area's ring; the client writes, in the area's header, the position up to which it is done, and the
host never writes over what lies beyond.
"""

import ipaddress
import math
import mmap
import os
import select
import socket
import struct
import time

from ._error import OXError

HEADER_BYTES = 4096
RELEASED_OFFSET = 64
MAGIC = b"OXAREA1\0"
TOKEN_BYTES = 16
_DOOR_TIMEOUT_S = 2.0
_RELEASED = struct.Struct("<Q")


def on_this_machine(url):
    """Whether the broker host at url runs on this machine: ipc, or a loopback TCP address."""
    if url.startswith("ipc://"):
        return True
    if not url.startswith("tcp://"):
        return False
    host = url[len("tcp://"):].rsplit(":", 1)[0].strip("[]")
    if host == "localhost":
        return True
    try:
        address = ipaddress.ip_address(host)
    except ValueError:
        return False
    mapped = getattr(address, "ipv4_mapped", None)
    return address.is_loopback or bool(mapped and mapped.is_loopback)


def _refused(why):
    return OXError("OXProxy", "connect", why)


class Area:
    """A mapped area. Binaries come back as read-only memoryviews: copies, or (views=True) views
    of the area, valid until the proxy's next call."""

    def __init__(self, offer):
        well_formed = (isinstance(offer, list) and len(offer) == 4 and isinstance(offer[0], str)
                       and offer[0].startswith("@") and len(offer[0]) > 1
                       and isinstance(offer[1], (bytes, memoryview))
                       and len(offer[1]) == TOKEN_BYTES and isinstance(offer[2], int)
                       and offer[2] > HEADER_BYTES)
        if not well_formed:
            raise _refused("malformed shared-memory offer")
        door, token, size = offer[0], bytes(offer[1]), offer[2]
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as visit:
                visit.settimeout(_DOOR_TIMEOUT_S)
                visit.connect("\0" + door[1:])
                visit.sendall(token)
                answer, fds, _, _ = socket.recv_fds(visit, 1, 1)
        except OSError as error:
            raise _refused("cannot reach the shared-memory door: %s" % error) from None
        if answer != b"1" or len(fds) != 1:
            for fd in fds:
                os.close(fd)
            raise _refused("the shared-memory door refused")
        try:
            if os.fstat(fds[0]).st_size != size:
                raise _refused("the shared-memory area has not the size offered")
            self._map = mmap.mmap(fds[0], size, mmap.MAP_SHARED,
                                  mmap.PROT_READ | mmap.PROT_WRITE)
        finally:
            os.close(fds[0])
        if self._map[:len(MAGIC)] != MAGIC:
            self._map.close()
            raise _refused("not a shared-memory area")
        self._view = memoryview(self._map)
        self._capacity = size - HEADER_BYTES
        self._seen_end = 0
        self._released = None

    def resolve(self, position, size, view):
        """The binary at position: a view of the area, or a copy."""
        offset = position % self._capacity
        if size > self._capacity or offset + size > self._capacity:
            raise OXError("OXProxy", "decode", "malformed message: %d bytes at %d lie outside "
                          "the shared area" % (size, position))
        self._seen_end = max(self._seen_end, position + size)
        start = HEADER_BYTES + offset
        piece = self._view[start:start + size]
        return piece.toreadonly() if view else memoryview(piece.tobytes())

    def release(self):
        """Tells the host that everything received so far may be written over."""
        if self._seen_end != self._released:
            _RELEASED.pack_into(self._map, RELEASED_OFFSET, self._seen_end)
            self._released = self._seen_end

    def close(self):
        self._view.release()
        try:
            self._map.close()
        except BufferError:
            pass  # views are still held: the mapping goes with the last of them


# The session's Unix socket (docs/protocol.md, "Calls over a Unix socket"): a message is a
# little-endian 64-bit count of the bytes that follow, then each frame as a little-endian 32-bit
# size and its bytes.
_MESSAGE = struct.Struct("<Q")
_FRAME = struct.Struct("<I")
_ONE_FRAME = struct.Struct("<QI")  # the start of a message of one frame
_READ_AHEAD = 64 * 1024
_LONGEST_POLL_MS = 2 ** 31 - 1


class CallsClosed(Exception):
    """The host closed the connection; started says whether a reply had begun to arrive (without,
    the host read no request that it did not answer)."""

    def __init__(self, started):
        super().__init__("closed")
        self.started = started


class Calls:
    """The requests and replies of a session that holds an area, over a Unix stream socket to
    the host instead of ZeroMQ. Timeouts raise TimeoutError, a closed connection CallsClosed.

    The socket never blocks, and the waits are polls bounded by the time left: a call is then one
    send, one poll and, mostly, one receive into a buffer kept for the purpose. (A socket timeout
    would poll before the send too and set the socket's mode at every change of the time left;
    the kernel's own receive timeout would fire late, by up to an eighth of a long timeout.)"""

    def __init__(self, address, token, timeout_s):
        if not isinstance(address, str) or not address.startswith("@") or len(address) < 2:
            raise _refused("malformed calls address")
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            sock.settimeout(timeout_s)
            sock.connect("\0" + address[1:])
            sock.sendall(token)
            answer = sock.recv(1)
            sock.settimeout(0.0)
        except OSError as error:
            sock.close()
            raise _refused("cannot reach the calls door: %s" % error) from None
        if answer != b"1":
            sock.close()
            raise _refused("the calls door refused")
        self._socket = sock
        self._poll = select.poll()
        self._poll.register(sock, select.POLLIN)
        self._buffer = bytearray(_READ_AHEAD)
        self._view = memoryview(self._buffer)
        self._leftover = b""

    def send(self, frames, deadline):
        if deadline <= time.monotonic():
            raise TimeoutError()
        if len(frames) == 1:
            # A request of one frame, the common case, goes as one buffer.
            frame = frames[0]
            message = _ONE_FRAME.pack(_FRAME.size + len(frame), len(frame)) + frame
            try:
                sent = self._socket.send(message)
            except BlockingIOError:
                sent = 0
            except (BrokenPipeError, ConnectionError):
                raise CallsClosed(False) from None
            if sent < len(message):
                self._send_rest([message], sent, deadline)
            return
        parts = [b""]
        total = 0
        for frame in frames:
            size = memoryview(frame).nbytes
            parts += (_FRAME.pack(size), frame)
            total += _FRAME.size + size
        parts[0] = _MESSAGE.pack(total)
        try:
            sent = self._socket.sendmsg(parts)
        except BlockingIOError:
            sent = 0
        except (BrokenPipeError, ConnectionError):
            raise CallsClosed(False) from None
        if sent < _MESSAGE.size + total:
            self._send_rest(parts, sent, deadline)

    def _send_rest(self, parts, sent, deadline):
        """What did not fit in the socket at once."""
        for part in parts:
            view = memoryview(part).cast("B")
            if sent >= view.nbytes:
                sent -= view.nbytes
                continue
            view = view[sent:]
            sent = 0
            while view:
                self._wait(deadline, select.POLLOUT)
                try:
                    count = self._socket.send(view)
                except BlockingIOError:
                    count = 0
                except (BrokenPipeError, ConnectionError):
                    raise CallsClosed(False) from None
                view = view[count:]

    def receive(self, deadline):
        """The frames of the next message, read-only memoryviews of bytes of their own, the header
        frame excepted: that one may be a view of the kept buffer, valid until the next receive."""
        data, self._leftover = self._leftover, b""
        if not data:
            # The common case: the whole reply in one read into the kept buffer.
            self._wait(deadline, select.POLLIN)
            got = self._recv_into(self._view, deadline, False)
            data = self._view[:got]
            if got >= _ONE_FRAME.size:
                count, size = _ONE_FRAME.unpack_from(data)
                need = _MESSAGE.size + count
                if count == _FRAME.size + size and need <= got:
                    if got > need:
                        self._leftover = bytes(data[need:])
                    return [data[_ONE_FRAME.size:need].toreadonly()]
            data = bytes(data)
        started = True
        while len(data) < _MESSAGE.size:
            got = self._recv_into(self._view, deadline, started)
            data += self._view[:got]
        need = _MESSAGE.size + _MESSAGE.unpack_from(data)[0]
        if len(data) >= need:
            message = memoryview(data)[_MESSAGE.size:need]
            self._leftover = data[need:]
        else:
            whole = bytearray(need)
            whole[:len(data)] = data
            view = memoryview(whole)
            got = len(data)
            while got < need:
                got += self._recv_into(view[got:], deadline, True)
            message = view[_MESSAGE.size:].toreadonly()
        frames = []
        at = 0
        while at < len(message):
            if at + _FRAME.size > len(message):
                raise CallsClosed(True)
            size = _FRAME.unpack_from(message, at)[0]
            at += _FRAME.size
            if at + size > len(message):
                raise CallsClosed(True)
            frames.append(message[at:at + size])
            at += size
        return frames

    def close(self):
        self._socket.close()

    def _recv_into(self, view, deadline, started):
        """Reads what has come, waiting for it when nothing has."""
        while True:
            try:
                count = self._socket.recv_into(view)
                break
            except BlockingIOError:
                self._wait(deadline, select.POLLIN)
            except ConnectionError:
                count = 0
                break
        if count == 0:
            raise CallsClosed(started)
        return count

    def _wait(self, deadline, event):
        """Waits until the socket is ready for event (or closed), or raises TimeoutError at
        deadline."""
        if event != select.POLLIN:
            self._poll.modify(self._socket, event)
        try:
            while True:
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError()
                if self._poll.poll(min(math.ceil(left * 1000), _LONGEST_POLL_MS)):
                    return
        finally:
            if event != select.POLLIN:
                self._poll.modify(self._socket, select.POLLIN)
