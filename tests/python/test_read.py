"""Reading: the decoding of every type, names in any script, lookups, the walk, key times and
independent keys. Values are stored raw (bytes keep their type) and read back."""

import datetime
import struct

import pytest

import tamvik
from tamvik import RegType as T
from conftest import tool


def u16(text):
    return text.encode("utf-16-le", "surrogatepass")


DECODED = [
    # type, stored bytes, data
    (T.REG_SZ, u16("abc\0"), "abc"),
    (T.REG_SZ, u16("abc"), "abc"),  # no NUL: whole units are the text
    (T.REG_SZ, u16("ab\0cd\0"), "ab"),  # the text ends at the first NUL
    (T.REG_SZ, u16("ab\0") + b"x", "ab"),  # an odd byte after the NUL is no matter
    (T.REG_SZ, u16("ab") + b"x", u16("ab") + b"x"),  # nor NUL nor whole units
    (T.REG_SZ, u16("a\ud800\0"), u16("a\ud800\0")),  # a lone surrogate
    (T.REG_SZ, u16("\udc00\0"), u16("\udc00\0")),
    (T.REG_SZ, u16("a\0\ud800"), "a"),  # what follows the NUL is no matter
    (T.REG_SZ, u16("\U0001d11e é ж 中\0"), "\U0001d11e é ж 中"),
    (T.REG_SZ, b"", ""),
    (T.REG_EXPAND_SZ, u16("%SystemRoot%\0"), "%SystemRoot%"),
    (T.REG_LINK, u16("\\Registry\\Machine\0"), "\\Registry\\Machine"),
    (T.REG_MULTI_SZ, u16("a\0b c\0\0"), ["a", "b c"]),
    (T.REG_MULTI_SZ, u16("a\0b\0"), ["a", "b"]),  # no empty string at the end
    (T.REG_MULTI_SZ, u16("a\0\0b\0\0"), ["a"]),  # the empty string ends the list
    (T.REG_MULTI_SZ, u16("a\0b"), ["a", "b"]),
    (T.REG_MULTI_SZ, u16("a\0b") + b"x", u16("a\0b") + b"x"),
    (T.REG_MULTI_SZ, u16("a\0\ud800\0\0"), u16("a\0\ud800\0\0")),
    (T.REG_MULTI_SZ, u16("\0"), []),
    (T.REG_MULTI_SZ, b"", []),
    (T.REG_DWORD, b"\x01\x02\x03\x84", 0x84030201),
    (T.REG_DWORD, b"\x01\x02\x03", b"\x01\x02\x03"),
    (T.REG_DWORD, b"\x01\x02\x03\x04\x05", b"\x01\x02\x03\x04\x05"),
    (T.REG_DWORD_BIG_ENDIAN, b"\x01\x02\x03\x84", 0x01020384),
    (T.REG_DWORD_BIG_ENDIAN, b"", b""),
    (T.REG_QWORD, b"\x01\x02\x03\x04\x05\x06\x07\x88", 0x8807060504030201),
    (T.REG_QWORD, b"\x01\x02\x03\x04", b"\x01\x02\x03\x04"),
    (T.REG_BINARY, u16("abc\0"), u16("abc\0")),
    (T.REG_NONE, b"\x01", b"\x01"),
    (T.REG_RESOURCE_LIST, b"\x01\x02\x03\x04", b"\x01\x02\x03\x04"),
    (0x12345, b"\x01\x02\x03\x04", b"\x01\x02\x03\x04"),
    (T.REG_BINARY, bytes(range(256)) * 80, bytes(range(256)) * 80),  # big data, in segments
]


def test_every_type_decodes_or_stays_bytes(blank):
    with tamvik.open(blank, write=True) as hive:
        for i, (kind, raw, _) in enumerate(DECODED):
            hive.root.set(f"v{i}", raw, kind)
    with tamvik.open(blank) as hive:
        values = list(hive.root.values)
    assert [(v.type, v.raw, v.data) for v in values] == DECODED
    assert [type(v.type) for v in values][-3:] == [T, int, T]
    assert repr(values[0]) == "Value(name='v0', type=REG_SZ, data='abc')"


NAMES = ["plain", "ÄÖÜ ß", "中文名", "emoji \U0001f600", "lone \ud800", "nul\0inside", "back\\slash", "x" * 300]


def test_names_in_any_script_read_back_and_walk_reaches_every_key(blank):
    with tamvik.open(blank, write=True) as hive:
        for name in NAMES:
            key = hive.root.create(name.replace("\\", "/"))
            key.set(name, name)
        hive.root.set("", "default")
    with tamvik.open(blank) as hive:
        keys = {key.name: key for key in hive.root.subkeys}
        assert sorted(keys) == sorted(n.replace("\\", "/") for n in NAMES)
        for name in NAMES:
            key = keys[name.replace("\\", "/")]
            value = key.values[name]
            assert value.name == name and key.get(name) == (value.raw if "\ud800" in name else name.split("\0")[0])
            assert hive.root.subkeys[key.name] == key and key.name in hive.root.subkeys
        assert hive.root.get("") == "default" and hive.root.values[""].name == ""
        walked = [(path, key.name) for path, key in hive.walk()]
        assert walked[0] == ("", hive.root.name) and len(walked) == len(NAMES) + 1
        assert all(path == name for path, name in walked[1:])


@pytest.fixture
def tree(blank):
    """Root / Alpha / Beta / Gamma, Root / Second, with a value in Gamma."""
    with tamvik.open(blank, write=True) as hive:
        hive.root.create("Alpha\\Beta\\Gamma").set("Start", 3)
        hive.root.create("Second")
    with tamvik.open(blank) as hive:
        yield hive


@pytest.mark.parametrize("path, found", [
    ("alpha\\BETA\\gamma", "Alpha\\Beta\\Gamma"),
    ("\\Alpha\\Beta\\", "Alpha\\Beta"),
    ("Alpha\\\\Beta", "Alpha\\Beta"),
    ("", ""),
    ("Alpha\\Nope", None),
    ("Nope", None),
    ("Alpha\\Beta\\Gamma\\Start", None),  # a value is no key
])
def test_lookup_in_any_case_gives_stored_names_or_key_error(tree, path, found):
    if found is None:
        with pytest.raises(KeyError) as raised:
            tree[path]
        assert raised.value.status == tamvik.Status.NOT_FOUND and "no key" in str(raised.value)
    else:
        key = tree[path]
        assert key.path == found and key.name == (found.rpartition("\\")[2] or tree.root.name)
        assert key == tree.root[path.lower()] and hash(key) == hash(tree.root[path.lower()])


def test_views_count_list_and_look_up(tree):
    alpha, gamma = tree["Alpha"], tree["alpha\\beta\\gamma"]
    assert (len(tree.root.subkeys), len(alpha.subkeys), len(gamma.subkeys)) == (2, 1, 0)
    assert (len(alpha.values), len(gamma.values)) == (0, 1)
    assert [k.path for k in tree.root.subkeys] == ["Alpha", "Second"]
    assert alpha["Beta"]["GAMMA"] == gamma and tree["Alpha"]["beta\\gamma"].path == "Alpha\\Beta\\Gamma"
    assert gamma.values["start"].data == 3 and gamma.get("START") == 3 and gamma.get("x", 7) == 7
    assert gamma.values.get("x") is None and gamma.values.get("x", 5) == 5 and "Start" in gamma.values
    assert "x" not in gamma.values and "Beta" not in tree.root.subkeys
    with pytest.raises(KeyError, match="no value 'x' in key"):
        gamma.values["x"]
    with pytest.raises(KeyError):
        alpha.subkeys["beta\\gamma"]  # one name, not a path
    with pytest.raises(TypeError):
        alpha[3]


def test_walk_is_depth_first_in_stored_order_from_any_key(tree):
    assert [path for path, _ in tree.walk()] == ["", "Alpha", "Alpha\\Beta", "Alpha\\Beta\\Gamma", "Second"]
    assert [path for path, _ in tree.walk("alpha\\beta")] == ["Alpha\\Beta", "Alpha\\Beta\\Gamma"]
    assert all(key.path == path for path, key in tree.walk())


def test_keys_and_walks_stay_usable_beside_others_until_the_hive_closes(tree, blank):
    gamma, second = tree["Alpha\\Beta\\Gamma"], tree["Second"]
    walk, unstarted = tree.walk(), tree.walk()
    next(walk)
    sibling = tamvik.open(blank)  # a second hive of the same file, and lookups all around
    [sibling["Alpha\\Beta"] for _ in range(3)], tree["Alpha"], tree.root.subkeys["Second"]
    sibling.close()
    assert gamma.get("Start") == 3 and second.path == "Second" and len(list(walk)) == 4
    with tree:
        pass
    for use in (lambda: gamma.values["Start"], lambda: list(second.subkeys), lambda: tree.root, lambda: next(unstarted)):
        with pytest.raises(ValueError, match="closed"):
            use()


def test_last_write_reads_both_clocks_as_the_tool_does(tree, blank, shared):
    made = tree["Alpha"].last_write
    assert made.tzinfo is not None and abs(made - datetime.datetime.now(datetime.timezone.utc)).total_seconds() < 120
    system = shared / "clean" / "dfwinreg__SYSTEM"
    with tamvik.open(system) as real:
        for hive, path, at in ((tree, blank, "Alpha"), (real, system, "Select")):
            stamp = hive[at].last_write
            shown = tool("ls", "-l", path, "").splitlines()
            assert f"{stamp:%Y-%m-%d %H:%M:%S} UTC  {'unix' if hive is tree else 'filetime':8}  {at}\\" in shown


def test_a_walk_through_a_cycle_of_lists_ends(blank):
    with tamvik.open(blank, write=True) as hive:
        root, a = hive.root.cell, hive.root.create("A").cell
    with open(blank, "r+b") as f:  # A's subkey list becomes the root's, which names A
        f.seek(4096 + root + 4 + 0x1C)
        root_list = f.read(4)
        f.seek(4096 + a + 4 + 0x14)
        f.write(struct.pack("<I", 1))
        f.seek(4096 + a + 4 + 0x1C)
        f.write(root_list)
    with tamvik.open(blank) as hive:
        assert [path for path, _ in hive.walk()] == ["", "A", "A\\A"]
