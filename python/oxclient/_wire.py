"""OXValue on the wire: one MessagePack header plus one ZeroMQ frame per large binary.

The layout is the one docs/protocol.md describes; the broker's decoder refuses anything else, so
the encoder here refuses early what the broker would only answer with "malformed message", and the
decoder refuses what the broker never sends.
"""

import struct

import msgpack

from ._error import OXError

PROTOCOL_VERSION = 1
# Binaries of at least this many bytes travel in a frame of their own, so that a frame of pixels is
# never copied into the header.
OUT_OF_LINE_BINARY = 4096
FRAME_EXT_TYPE = 1
# A binary placed in the session's shared-memory area (_shm.py): its position and size.
AREA_EXT_TYPE = 2
_AREA_PLACE = struct.Struct(">QI")
INT_MIN = -(2 ** 31)
INT_MAX = 2 ** 31 - 1
# Far deeper than any value the device returns; it keeps a hostile reply from exhausting Python's
# own recursion limit.
MAX_DEPTH = 256

_BINARY_TYPES = (bytes, bytearray, memoryview)


def _encode_error(why):
    return OXError("OXProxy", "encode", why)


def _malformed(why):
    return OXError("OXProxy", "decode", "malformed message: " + why)


def _as_bytes_like(value):
    """A flat byte view of a binary value, copied only when the buffer is not contiguous."""
    if isinstance(value, memoryview):
        if not value.c_contiguous:
            return value.tobytes()
        return value if value.format == "B" and value.ndim == 1 else value.cast("B")
    return value


def _prepare(value, frames, depth=0):
    """Maps a Python value onto what msgpack packs as the matching OXValue kind."""
    if depth > MAX_DEPTH:
        raise _encode_error("value nested deeper than %d" % MAX_DEPTH)
    if value is None or isinstance(value, (bool, float, str)):
        # bool before int: a Python bool is an int too, and must stay a MessagePack bool.
        return value
    if isinstance(value, int):
        if not INT_MIN <= value <= INT_MAX:
            raise _encode_error("integer %d does not fit in a signed 32-bit int" % value)
        return value
    if isinstance(value, _BINARY_TYPES):
        data = _as_bytes_like(value)
        if len(data) >= OUT_OF_LINE_BINARY:
            frames.append(data)
            return msgpack.ExtType(FRAME_EXT_TYPE, struct.pack(">I", len(frames)))
        return bytes(data)
    if isinstance(value, (list, tuple)):
        return [_prepare(item, frames, depth + 1) for item in value]
    raise _encode_error("cannot send a value of type %s" % type(value).__name__)


def encode(value):
    """Returns the frames of one message: the packed header, then the out-of-line binaries."""
    frames = []
    header = _prepare(value, frames)
    # surrogateescape gives back the exact bytes of a received string that was not UTF-8.
    packed = msgpack.packb(header, use_bin_type=True, use_single_float=True,
                           unicode_errors="surrogateescape")
    return [packed] + frames


def _buffer_of(frame):
    """A read-only view of a frame's bytes, without a copy: a zmq.Frame received with copy=False,
    or bytes."""
    if type(frame) is memoryview:
        return frame if frame.readonly else frame.toreadonly()
    if isinstance(frame, bytes):
        return memoryview(frame)
    buffer = getattr(frame, "buffer", None)  # a zmq.Frame
    return (buffer if buffer is not None else memoryview(frame)).toreadonly()


_NONE_TYPE = type(None)
# What msgpack gives back as it is: only these exact types, never subclasses, come out of it.
_PLAIN = frozenset((str, bool, float, _NONE_TYPE))


class _Decoder:
    def __init__(self, frames, area, views):
        self.frames = frames
        self.used = [False] * len(frames)
        self.area = area
        self.views = views

    def value(self, obj, depth=0):
        if depth > MAX_DEPTH:
            raise _malformed("nested deeper than %d" % MAX_DEPTH)
        kind = type(obj)
        if kind is list:
            return self.items(obj, depth)
        return self.scalar(obj, kind)

    def items(self, items, depth):
        """The array's values, in place: msgpack made the list for this message alone."""
        if items and depth >= MAX_DEPTH:
            raise _malformed("nested deeper than %d" % MAX_DEPTH)
        for index, item in enumerate(items):
            kind = type(item)
            if kind is int:
                if not INT_MIN <= item <= INT_MAX:
                    raise _malformed("integer %d out of range" % item)
            elif kind in _PLAIN:
                pass
            elif kind is list:
                self.items(item, depth + 1)
            else:
                items[index] = self.scalar(item, kind)
        return items

    def scalar(self, obj, kind):
        if kind is bytes:
            return memoryview(obj)
        if kind in _PLAIN:
            return obj
        if kind is int:
            if not INT_MIN <= obj <= INT_MAX:
                raise _malformed("integer %d out of range" % obj)
            return obj
        if kind is tuple:  # what _ext_pair makes of an ext object
            return self.frame(obj)
        if kind is dict:
            raise _malformed("a map")
        raise _malformed("an unknown MessagePack type (%s)" % kind.__name__)

    def frame(self, ext):
        code, data = ext
        if code == AREA_EXT_TYPE and self.area is not None and len(data) == 12:
            position, size = _AREA_PLACE.unpack(data)
            return self.area.resolve(position, size, self.views)
        if code != FRAME_EXT_TYPE:
            raise _malformed("unknown extension type %d" % code)
        if len(data) != 4:
            raise _malformed("a frame reference of %d bytes" % len(data))
        (index,) = _FRAME_INDEX.unpack(data)
        if not 1 <= index < len(self.frames) + 1:
            raise _malformed("frame %d does not exist" % index)
        if self.used[index - 1]:
            raise _malformed("frame %d referenced twice" % index)
        self.used[index - 1] = True
        return _buffer_of(self.frames[index - 1])


_FRAME_INDEX = struct.Struct(">I")
_unpackb = msgpack.unpackb


def _ext_pair(code, data):
    """An ext object as a plain (code, data) pair: msgpack makes no other tuple (arrays come as
    lists), and a pair costs less than an ExtType."""
    return (code, data)


def decode(frames, area=None, views=False):
    """Decodes a whole message (a list of frames, header first) into Python values. Binaries come
    as read-only memoryviews of the frames, not copied; those placed in the shared-memory area
    are read through area: copied, or with views, left in place."""
    if not frames:
        raise _malformed("no frames")
    header = frames[0]
    if type(header) is not bytes and type(header) is not memoryview:
        header = _buffer_of(header)
    if not header:
        raise _malformed("empty header")
    try:
        # The timestamp extension comes back as msgpack.Timestamp and is refused like any other.
        obj = _unpackb(header, raw=False, unicode_errors="surrogateescape",
                       strict_map_key=False, use_list=True, timestamp=0, ext_hook=_ext_pair)
    except msgpack.ExtraData:
        raise _malformed("bytes after the header") from None
    except (ValueError, msgpack.UnpackException, TypeError) as error:
        raise _malformed("unreadable header (%s)" % (str(error) or type(error).__name__)) from None
    decoder = _Decoder(frames[1:] if len(frames) > 1 else [], area, views)
    result = decoder.value(obj)
    if len(frames) > 1:
        for index, used in enumerate(decoder.used, start=1):
            if not used:
                raise _malformed("frame %d is not referenced" % index)
    return result
