"""What the Python package's tests share: the tool, the shared real hives, a new hive."""

import os
import pathlib
import subprocess

import pytest

import tamvik

SHARED = pathlib.Path(os.environ.get("TAMVIK_HIVES", pathlib.Path(__file__).parents[3] / "shared" / "hives"))


def tool(*args, check=True):
    """A run of the tamvik tool (TAMVIK_TOOL): its standard output, or the whole CompletedProcess unless check."""
    run = subprocess.run([os.environ.get("TAMVIK_TOOL", "tamvik"), *map(str, args)], capture_output=True, text=True)
    if check:
        assert run.returncode == 0, run.stderr
        return run.stdout
    return run


@pytest.fixture
def shared():
    if not SHARED.is_dir():
        pytest.skip(f"the shared real hives are absent ({SHARED}; set TAMVIK_HIVES)")
    return SHARED


@pytest.fixture
def blank(tmp_path):
    """The path of a new, empty hive."""
    path = tmp_path / "blank.hiv"
    tamvik.new(path).close()
    return path
