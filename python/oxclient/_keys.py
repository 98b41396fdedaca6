"""CURVE keys of ZeroMQ in the files that oxkeygen writes (see docs/security.md): comment lines
starting with '#' and one line with the key in Z85 text (40 characters)."""

import struct

import zmq
from zmq.utils import z85

from ._error import OXError

_Z85_KEY_SIZE = 40
_MAX_KEY_FILE_BYTES = 4096


def read_key(path):
    """The Z85 key of a NAME.key or NAME.pub file, as bytes; OXError naming the file otherwise."""
    try:
        with open(path, "rb") as stream:
            text = stream.read(_MAX_KEY_FILE_BYTES + 1)
    except OSError as error:
        raise OXError("OXKeys", "readCurveKey", "cannot read the key %s: %s"
                      % (path, error.strerror)) from None
    lines = [line.strip() for line in text.splitlines()]
    keys = [line for line in lines if line and not line.startswith(b"#")]
    if len(text) > _MAX_KEY_FILE_BYTES or len(keys) != 1 or len(keys[0]) != _Z85_KEY_SIZE:
        raise OXError("OXKeys", "readCurveKey", "%s is no key file: expected comment lines ('#') "
                      "and one key of 40 Z85 characters (made by oxkeygen)" % path)
    try:
        z85.decode(keys[0])
    except (ValueError, KeyError, OverflowError, struct.error):
        raise OXError("OXKeys", "readCurveKey", "%s holds no Z85 key" % path) from None
    return keys[0]


def use_curve(socket, server_key, client_key):
    """Makes ``socket`` a CURVE client with the broker's public key file and this client's secret
    key file; nothing when both are None."""
    if server_key is None and client_key is None:
        return
    if server_key is None or client_key is None:
        raise OXError("OXProxy", "connect", "CURVE needs both keys: the broker's public key and "
                      "this client's secret key")
    secret = read_key(client_key)
    socket.curve_serverkey = read_key(server_key)
    socket.curve_secretkey = secret
    socket.curve_publickey = zmq.curve_public(secret)
