"""The peers as oracles: tamvik's walk of every shared clean hive lists what hivex lists (names,
types, raw data, in stored order), in the format of tests/peers/listing.py."""

import pathlib
import subprocess
import sys

import pytest

import tamvik
from conftest import SHARED

LISTING = pathlib.Path(__file__).parents[1] / "peers" / "listing.py"
sys.path.insert(0, str(LISTING.parent))
from listing import child_path, escape_name, skipped  # noqa: E402


def walk_listing(path):
    """The listing of tamvik's walk: a key whose name no path can give is listed, not entered."""
    lines, escaped, unreached = [], {"": "\\"}, set()
    with tamvik.open(path) as hive:
        for key_path, key in hive.walk():
            parent = key_path[: -len(key.name) - 1] if key_path else None
            if parent in unreached or (parent is not None and skipped(key.name)):
                unreached.add(key_path)
                if parent not in unreached:
                    lines.append(f"K\t{child_path(escaped[parent], escape_name(key.name))}\tSKIP")
                continue
            if parent is not None:
                escaped[key_path] = child_path(escaped[parent], escape_name(key.name))
            lines.append(f"K\t{escaped[key_path]}")
            lines += [f"V\t{escaped[key_path]}\t{escape_name(v.name)}\t{v.type:d}\t{v.raw.hex()}" for v in key.values]
    return lines


@pytest.mark.parametrize("name", sorted(p.name for p in (SHARED / "clean").glob("*")) or ["(absent)"])
def test_walk_equals_hivex(shared, name):
    pytest.importorskip("hivex")
    path = shared / "clean" / name
    hivex = subprocess.run([sys.executable, LISTING, "hivex", path], capture_output=True, text=True, check=True)
    assert walk_listing(path) == hivex.stdout.splitlines()
