"""Writing: types inferred from Python data, round trips with the tool both ways, keys made and
deleted, and every refusal as the exception family tells it."""

import fcntl
import os

import pytest

import tamvik
from tamvik import RegType as T
from conftest import tool

INFERRED = [
    # data, type, stored bytes
    ("é\U0001f600", T.REG_SZ, "é\U0001f600\0".encode("utf-16-le")),
    ("", T.REG_SZ, b"\0\0"),
    (["a", "bc"], T.REG_MULTI_SZ, "a\0bc\0\0".encode("utf-16-le")),
    ([], T.REG_MULTI_SZ, b"\0\0"),
    (0, T.REG_DWORD, b"\0\0\0\0"),
    (0xFFFFFFFF, T.REG_DWORD, b"\xff\xff\xff\xff"),
    (1 << 32, T.REG_QWORD, b"\0\0\0\0\1\0\0\0"),
    (b"\x00\xff", T.REG_BINARY, b"\x00\xff"),
    (bytearray(b"ab"), T.REG_BINARY, b"ab"),
    (b"", T.REG_BINARY, b""),
    (None, T.REG_NONE, b""),
]


def test_types_inferred_from_python_data(blank):
    with tamvik.open(blank, write=True) as hive:
        for i, (data, _, _) in enumerate(INFERRED):
            hive.root.set(f"v{i}", data)
        stored = [(v.type, v.raw) for v in hive.root.values]
    assert stored == [(type, raw) for _, type, raw in INFERRED]


@pytest.mark.parametrize("data, type, error", [
    (-1, None, ValueError),
    (1 << 64, None, ValueError),
    (1 << 32, T.REG_DWORD, ValueError),
    (["a", ""], None, ValueError),
    (1.5, None, TypeError),
    ("text", T.REG_DWORD, TypeError),
    ([1], None, TypeError),
    (b"\1", -1, TypeError),
    (b"\1", 1 << 32, TypeError),
])
def test_data_that_cant_be_stored_is_refused_and_nothing_written(blank, data, type, error):
    with tamvik.open(blank, write=True) as hive:
        with pytest.raises(error):
            hive.root.set("v", data, type)
        assert len(hive.root.values) == 0


def test_set_takes_its_arguments_by_name_too_and_stores_bytes_as_they_are(blank):
    with tamvik.open(blank, write=True) as hive:
        hive.root.set(name="a", data=b"\1", type=T.REG_DWORD)
        hive.root.set("b", type=7, data=b"xy")
        for args, named in [((), {}), (("a",), {}), (("a", b"", 1, 2), {}), (("a", b""), {"kind": 1}),
                            (("a", b""), {"name": "b"})]:
            with pytest.raises(TypeError):
                hive.root.set(*args, **named)
        assert [(v.name, v.type, v.raw) for v in hive.root.values] == [("a", T.REG_DWORD, b"\1"), ("b", 7, b"xy")]


ROUND_TRIPS = [
    # type, Python data, the tool's arguments, what tamvik get prints
    ("sz", "héllo wörld \U0001d11e", ["héllo wörld \U0001d11e"], "héllo wörld \U0001d11e\n"),
    ("expand_sz", "%SystemRoot%\\x", ["%SystemRoot%\\x"], "%SystemRoot%\\x\n"),
    ("multi_sz", ["a", "b c"], ["a", "b c"], "a\nb c\n"),
    ("dword", 0xDEADBEEF, ["0xdeadbeef"], "3735928559\n"),
    ("dword_be", 258, ["258"], "258\n"),
    ("qword", 1 << 40, [str(1 << 40)], f"{1 << 40}\n"),
    ("binary", b"\x00\xff\x10", ["00,ff,10"], "00ff10\n"),
    ("none", b"", [""], "\n"),
]


@pytest.mark.parametrize("type, data, args, printed", ROUND_TRIPS)
def test_values_round_trip_with_the_tool(blank, type, data, args, printed):
    regtype = T["REG_" + type.upper().replace("DWORD_BE", "DWORD_BIG_ENDIAN")]
    with tamvik.open(blank, write=True) as hive:
        hive.root.create("K").set("from python", data, regtype)
    assert tool("get", blank, "K", "from python") == printed
    tool("set", blank, "K", "from tool", type, *args)
    with tamvik.open(blank) as hive:
        ours, theirs = hive["k"].values["from python"], hive["k"].values["from tool"]
    assert (ours.type, ours.raw, ours.data) == (theirs.type, theirs.raw, theirs.data) == (regtype, ours.raw, data)


def test_keys_made_in_windows_order_and_deleted(blank):
    with tamvik.open(blank, write=True) as hive:
        root = hive.root
        made = root.create("b\\Deep\\Deeper")
        assert made.path == "b\\Deep\\Deeper" and root.create("B\\deep") == root["b\\Deep"]
        for name in ("a", "_x", "C", "ä", "Z1"):
            root.create(name)
        assert [k.name for k in root.subkeys] == ["a", "b", "C", "Z1", "_x", "ä"]
        made.set("v", 1)
        made.delete_value("V")
        with pytest.raises(KeyError):
            made.delete_value("v")
        with pytest.raises(tamvik.Error) as refused:
            root.delete("B")
        assert refused.value.status == tamvik.Status.NOT_EMPTY
        root.delete("b\\deep", recursive=True)
        root.delete("\\_x\\")
        with pytest.raises(KeyError):
            root.delete("nope")
        assert [k.name for k in root.subkeys] == ["a", "b", "C", "Z1", "ä"] and len(root["b"].subkeys) == 0
    assert tool("ls", blank, "") == "a\\\nb\\\nC\\\nZ1\\\nä\\\n"
    with tamvik.open(blank) as hive:  # read-only: create gives a key that exists
        assert hive.root.create("\\B\\") == hive.root["b"]


def reseal(path, offset, data):
    """Writes data into the base block, then its checksum again."""
    with open(path, "r+b") as f:
        f.seek(offset)
        f.write(data)
        f.seek(0)
        words = memoryview(f.read(508)).cast("I")
        checksum = 0
        for word in words:
            checksum ^= word
        f.seek(508)
        f.write({0: 1, 0xFFFFFFFF: 0xFFFFFFFE}.get(checksum, checksum).to_bytes(4, "little"))


def make_damaged(path):
    """The root's subkey list named by a second key too (the check finds it cross-linked)."""
    with tamvik.open(path, write=True) as hive:
        root, a = hive.root.cell, hive.root.create("A").cell
    with open(path, "r+b") as f:
        f.seek(4096 + root + 4 + 0x1C)
        shared_list = f.read(4)
        f.seek(4096 + a + 4 + 0x14)
        f.write((1).to_bytes(4, "little") + b"\0\0\0\0" + shared_list)


@pytest.mark.parametrize("spoil, error, status", [
    (lambda p: reseal(p, 4, b"\x07"), tamvik.DirtyHiveError, tamvik.Status.DIRTY),
    (make_damaged, tamvik.DamagedHiveError, tamvik.Status.DAMAGED),
])
def test_dirty_and_damaged_hives_are_refused_for_writing_with_the_tools_text(blank, spoil, error, status):
    spoil(blank)
    refusal = tool("set", blank, "", "v", "dword", "1", check=False).stderr.strip()
    with pytest.raises(error) as raised:
        tamvik.open(blank, write=True)
    assert raised.value.status == status and f"tamvik set: {raised.value}" == refusal
    with tamvik.open(blank):  # reading is no edit
        pass
    with tamvik.open(blank, write=True, force=True) as hive:
        hive.root.set("forced", 1)


def open_twice(path):
    with tamvik.open(path, write=True):
        tamvik.open(path, write=True)


@pytest.mark.parametrize("action, error, status", [
    (lambda p: tamvik.open(p.parent / "absent"), FileNotFoundError, tamvik.Status.IO_ERROR),
    (lambda p: tamvik.open(p.parent / "absent", write=True), FileNotFoundError, tamvik.Status.IO_ERROR),
    (lambda p: tamvik.new(p), FileExistsError, tamvik.Status.EXISTS),
    (lambda p: tamvik.new(p.parent / "new.hiv", minor=9), ValueError, tamvik.Status.INVALID),
    (lambda p: tamvik.open(p).root.set("v", 1), PermissionError, tamvik.Status.READ_ONLY),
    (lambda p: tamvik.open(p).root.create("K"), PermissionError, tamvik.Status.READ_ONLY),
    (lambda p: tamvik.open(p, write=True).root.create("a\\" + "x" * 70000), ValueError, tamvik.Status.INVALID),
    (lambda p: tamvik.open(p.parent), tamvik.DamagedHiveError, tamvik.Status.NOT_A_HIVE),
    (open_twice, tamvik.LockedError, tamvik.Status.LOCKED),
])
def test_errors_are_one_family_with_the_builtin_kinds_that_fit(blank, action, error, status):
    with pytest.raises(error) as raised:
        action(blank)
    assert isinstance(raised.value, tamvik.Error) and raised.value.status == status, raised.value


def test_the_lock_is_held_until_close_and_writes_are_in_the_file_when_each_call_returns(blank):
    hive = tamvik.open(blank, write=True)
    hive.root.set("v", "now")
    assert tool("get", blank, "", "v") == "now\n"
    with open(blank, "rb") as other:
        with pytest.raises(BlockingIOError):
            fcntl.flock(other, fcntl.LOCK_EX | fcntl.LOCK_NB)
        hive.close()
        fcntl.flock(other, fcntl.LOCK_EX | fcntl.LOCK_NB)
    os.chmod(blank, 0o444)
    if os.geteuid() != 0:  # root opens it anyway
        with pytest.raises(PermissionError):
            tamvik.open(blank, write=True)
