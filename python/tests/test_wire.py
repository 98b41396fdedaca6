"""The value codec, the error text and the pure helpers, without a broker."""

import struct

import msgpack
import numpy as np
import pytest

from oxclient import OXError, describe_from_value, image_to_numpy
from oxclient import _wire


def round_trip(value):
    return _wire.decode(_wire.encode(value))


class TestRoundTrip:
    @pytest.mark.parametrize("value", [
        None, True, False, 0, 1, -1, 2 ** 31 - 1, -2 ** 31, 1.5, -0.25, "", "abc", "h\u00e9\u20ac",
        [], [None, [True, [1, [2.5, ["deep"]]]], "x"],
    ], ids=repr)
    def test_value_comes_back_equal_and_of_the_same_type(self, value):
        back = round_trip(value)
        assert back == value
        assert type(back) is type(value)

    # Binaries come back as read-only views of the received bytes, never copied, whatever their
    # size: a writable one would let a caller change what another value shares.
    def test_tuples_and_byte_buffers_come_back_as_lists_and_read_only_views(self):
        big = bytes(range(256)) * 20  # out of line
        back = round_trip((1, bytearray(b"ab"), memoryview(b"cd"), (2,), b"", big))
        assert back == [1, b"ab", b"cd", [2], b"", big]
        assert all(type(item) is memoryview and item.readonly for item in back[1:3] + back[4:])

    def test_typed_and_strided_buffers_travel_as_their_bytes(self):
        words = np.arange(3000, dtype=np.uint16)  # 6000 bytes: out of line
        columns = np.arange(200, dtype=np.uint8).reshape(10, 20)[:, :5]
        assert round_trip(memoryview(words)) == words.tobytes()
        assert round_trip(memoryview(columns)) == columns.tobytes()

    def test_bool_and_int_keep_their_msgpack_kinds(self):
        # bool is an int subclass in Python; the device tells bool and int overloads apart.
        assert _wire.encode([True, 1, False, 0])[0] == b"\x94\xc3\x01\xc2\x00"
        assert [type(v) for v in round_trip([True, 1])] == [bool, int]

    def test_floats_travel_as_float32(self):
        header = _wire.encode(0.1)[0]
        assert header[0] == 0xCA and len(header) == 5
        assert round_trip(0.1) == float(np.float32(0.1))

    def test_float64_from_the_broker_is_accepted(self):
        assert _wire.decode([msgpack.packb(0.1, use_single_float=False)]) == 0.1

    def test_non_utf8_string_bytes_survive_both_ways(self):
        raw = b"\xa3ab\xff"  # a str of three bytes, the last not UTF-8
        text = _wire.decode([raw])
        assert isinstance(text, str)
        assert _wire.encode(text)[0] == raw


class TestOutOfLineBinaries:
    def test_small_binaries_are_inline_large_ones_in_frames_in_order(self):
        small, first, second = b"s" * 4095, b"a" * 4096, bytes(range(256)) * 40
        frames = _wire.encode([first, small, [second]])
        assert len(frames) == 3
        assert bytes(frames[1]) == first and bytes(frames[2]) == second
        header = msgpack.unpackb(frames[0], ext_hook=msgpack.ExtType)
        assert header[0] == msgpack.ExtType(1, struct.pack(">I", 1))
        assert header[1] == small
        assert header[2] == [msgpack.ExtType(1, struct.pack(">I", 2))]
        assert _wire.decode(frames) == [first, small, [second]]

    def test_large_buffer_is_sent_without_a_copy(self):
        pixels = np.zeros(320 * 240 * 3, dtype=np.uint8)
        frame = _wire.encode([memoryview(pixels)])[1]
        assert np.shares_memory(np.frombuffer(frame, dtype=np.uint8), pixels)

    def test_any_size_decodes_in_either_form(self):
        ext = msgpack.ExtType(1, struct.pack(">I", 1))
        header = msgpack.packb([ext, b"z" * 10000], use_bin_type=True)
        assert _wire.decode([header, b"tiny"]) == [b"tiny", b"z" * 10000]


class TestRefusedOnTheWayOut:
    @pytest.mark.parametrize("value", [2 ** 31, -2 ** 31 - 1, [1, [2 ** 40]]], ids=repr)
    def test_ints_beyond_32_bits(self, value):
        with pytest.raises(OXError, match="does not fit in a signed 32-bit int"):
            _wire.encode(value)

    @pytest.mark.parametrize("value", [{"a": 1}, {1, 2}, object(), [1, {}]], ids=repr)
    def test_values_with_no_oxvalue_kind(self, value):
        with pytest.raises(OXError, match="cannot send a value of type"):
            _wire.encode(value)


def ext_ref(index, size=4):
    return msgpack.ExtType(1, struct.pack(">I", index)[4 - size:] if size <= 4 else b"\0" * size)


def nested(depth, inner):
    for _ in range(depth):
        inner = [inner]
    return inner


class TestMalformedReplies:
    @pytest.mark.parametrize("frames,why", [
        ([], "no frames"),
        ([b""], "empty header"),
        ([msgpack.packb({"a": 1})], "a map"),
        ([msgpack.packb([1, {}])], "a map"),
        ([msgpack.packb(msgpack.ExtType(2, b"\0\0\0\1")), b"x"], "unknown extension type 2"),
        ([b"\xd6\xff\x00\x00\x00\x01"], "unknown MessagePack type"),  # a timestamp
        ([msgpack.packb(2 ** 31)], "integer 2147483648 out of range"),
        ([msgpack.packb(-2 ** 31 - 1)], "out of range"),
        ([msgpack.packb(1) + b"\x01"], "bytes after the header"),
        ([b"\x92\x01"], "unreadable header"),
        ([b"\xc1"], "unreadable header"),
        ([msgpack.packb(ext_ref(0)), b"x"], "frame 0 does not exist"),
        ([msgpack.packb(ext_ref(2)), b"x"], "frame 2 does not exist"),
        ([msgpack.packb([ext_ref(1), ext_ref(1)]), b"x"], "frame 1 referenced twice"),
        ([msgpack.packb(ext_ref(1)), b"x", b"y"], "frame 2 is not referenced"),
        ([msgpack.packb(None), b"x"], "frame 1 is not referenced"),
        ([msgpack.packb(ext_ref(1, 3)), b"x"], "frame reference of 3 bytes"),
        # The same deep inside arrays, which the decoder walks in place.
        ([msgpack.packb([1, [2, [3, 2 ** 31]]])], "integer 2147483648 out of range"),
        ([msgpack.packb([[None, [{}]]])], "a map"),
        ([b"\x92\x01\x91\xd6\xff\x00\x00\x00\x01"], "unknown MessagePack type"),
        ([msgpack.packb([1, [msgpack.ExtType(3, b"")]])], "unknown extension type 3"),
        ([msgpack.packb(nested(257, []))], "nested deeper than 256"),
        ([msgpack.packb(nested(257, 1))], "nested deeper than 256"),
    ])
    def test_refused_with_the_reason(self, frames, why):
        with pytest.raises(OXError) as caught:
            _wire.decode(frames)
        assert caught.value.description.startswith("malformed message: ")
        assert why in caught.value.description

    # The decoder's depth bound must not refuse what stays within it.
    def test_values_at_the_depth_bound_are_taken(self):
        for value in (nested(256, []), nested(256, 1), [nested(255, b"x"), [1, [True]]]):
            assert round_trip(value) == value


class TestOXError:
    def test_text_is_that_of_the_cpp_error(self):
        error = OXError("OXVideoDevice", "getImageRemote()", "bad", "oxvisionvideoinput", 100)
        assert str(error) == "OXVideoDevice::getImageRemote(): bad (oxvisionvideoinput:100)"
        assert (error.module, error.method, error.description, error.file, error.line) == (
            "OXVideoDevice", "getImageRemote()", "bad", "oxvisionvideoinput", 100)

    def test_no_location_without_a_file(self):
        assert str(OXError("M", "f", "d", "", 7)) == "M::f: d"


def image(width, height, layers, pixels):
    return [width, height, layers, 11, 0, 0, pixels, 0, 0.0, 0.0, 0.0, 0.0]


class TestImageToNumpy:
    def test_pixels_in_row_major_order_without_a_copy(self):
        pixels = bytes(range(2 * 3 * 3))
        array = image_to_numpy(image(3, 2, 3, pixels))
        assert array.shape == (2, 3, 3) and array.dtype == np.uint8
        assert array[1, 0].tolist() == [9, 10, 11]
        assert np.shares_memory(array, np.frombuffer(pixels, dtype=np.uint8))

    @pytest.mark.parametrize("value", [
        None, [], image(3, 2, 3, b"\0" * 17), image(3, 2, 1, b"\0" * 18),
        image(-1, 2, 3, b""), image(3, 2, 3, "not binary"), image(3, 2, 3, b"\0" * 18)[:11],
        image(True, 1, 1, b"\0"),
    ], ids=repr)
    def test_wrong_shapes_and_sizes_are_refused(self, value):
        with pytest.raises(ValueError):
            image_to_numpy(value)


class TestDescribeFromValue:
    RECORD = ["f", "C", "does f", 4, [["a", "first", "int"]], ["r", "result", "bool"],
              [["C++", "f(1);"]], "bindMethodOverload"]

    def test_records_become_dicts_in_order(self):
        value = [["M", "module M", [["Python", "M.f(1)"]]],
                 [self.RECORD, ["g", "C", "", 0, [], ["", "", "void"], [], "bindMethod"]]]
        described = describe_from_value(value)
        assert described["module"] == "M" and described["description"] == "module M"
        assert described["examples"] == [{"language": "Python", "text": "M.f(1)"}]
        assert described["methods"][0] == {
            "name": "f", "class": "C", "description": "does f", "flags": 4,
            "parameters": [{"name": "a", "description": "first", "type": "int"}],
            "return": {"name": "r", "description": "result", "type": "bool"},
            "examples": [{"language": "C++", "text": "f(1);"}], "overload": True}
        assert [m["name"] for m in described["methods"]] == ["f", "g"]
        assert described["methods"][1]["overload"] is False

    @pytest.mark.parametrize("value", [
        None, [["M", "", []]], [["M", ""], []], [["M", "", []], [RECORD[:7]]],
        [["M", "", []], [RECORD[:7] + ["bindSomehow"]]],
        [["M", "", []], [RECORD[:4] + [[["a", "b"]]] + RECORD[5:]]],
    ], ids=repr)
    def test_malformed_descriptions_are_refused(self, value):
        with pytest.raises(ValueError):
            describe_from_value(value)
