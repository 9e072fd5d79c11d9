"""A hive inside a disk image: read and written through the image, as the tool sees it after."""

import shutil
import subprocess

import pytest

import tamvik
from conftest import tool

NEEDED = ["mkntfs", "ntfscp", "qemu-img", "qemu-nbd"]


@pytest.fixture
def volume(tmp_path, blank):
    """A bare NTFS volume holding a new hive at /config/SYSTEM."""
    missing = [name for name in NEEDED if shutil.which(name) is None and shutil.which(name, path="/usr/sbin") is None]
    if missing:
        pytest.skip("the image tests need " + ", ".join(missing))
    with tamvik.open(blank, write=True) as hive:
        hive.root.create("Select").set("Current", 1)
    raw = tmp_path / "disk.raw"
    with open(raw, "wb") as f:
        f.truncate(16 << 20)
    run = lambda *args: subprocess.run(args, check=True, capture_output=True)
    run(shutil.which("mkntfs") or "/usr/sbin/mkntfs", "-F", "-f", "-q", raw)
    run(shutil.which("ntfscp") or "/usr/sbin/ntfscp", "-f", raw, blank, "/SYSTEM")
    return raw


@pytest.mark.parametrize("fmt", ["raw", "qcow2"])
def test_read_and_write_inside_an_image(volume, tmp_path, fmt):
    image = volume
    if fmt != "raw":
        image = tmp_path / f"disk.{fmt}"
        subprocess.run(["qemu-img", "convert", "-O", fmt, volume, image], check=True)
    before = image.read_bytes()
    with tamvik.open("\\system", image=image) as hive:
        assert hive["SELECT"].get("Current") == 1
    assert image.read_bytes() == before, "a read changed the image"
    with tamvik.open("/SYSTEM", write=True, image=image) as hive:
        hive["Select"].set("Current", 2)
        hive.root.create("New\\Below")
    assert "2" in tool("get", "--image", image, "/SYSTEM", "Select", "Current")
    with tamvik.open("/SYSTEM", image=image, partition=None) as hive:
        assert [k.name for k in hive.root.subkeys] == ["New", "Select"]
    for write in (False, True):
        with pytest.raises(tamvik.HiveNotFoundError):
            tamvik.open("/NOPE", write, image=image)
