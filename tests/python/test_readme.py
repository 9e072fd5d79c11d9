"""The README's Python examples run as written, in a folder that holds shared real hives under the
names they use (and a disk image holding one, made as the image tests make theirs)."""

import os
import pathlib
import re
import subprocess

import pytest

README = pathlib.Path(__file__).parents[2] / "README.md"
SECTION = README.read_text().split("\n## Python\n", 1)[1].split("\n## ", 1)[0]
EXAMPLES = re.findall(r"```python\n(.*?)```", SECTION, re.S)


@pytest.mark.parametrize("code", EXAMPLES, ids=[f"example{i}" for i in range(len(EXAMPLES))])
def test_readme_example_runs_and_prints(shared, tmp_path, monkeypatch, capsys, code):
    (tmp_path / "SYSTEM").symlink_to(shared / "large" / "regipy__SYSTEM")
    (tmp_path / "NTUSER.DAT").symlink_to(shared / "clean" / "notatin__NTUSER.DAT")
    if "image=" in code:
        if not os.access(os.environ.get("TAMVIK_MAKE_IMAGE", ""), os.X_OK):
            pytest.skip("no image builder (TAMVIK_MAKE_IMAGE): the library was built without images")
        subprocess.run([os.environ["TAMVIK_MAKE_IMAGE"], tmp_path / "win10.qcow2",
                        f"Windows/System32/config/SYSTEM={tmp_path / 'SYSTEM'}"], check=True)
    monkeypatch.chdir(tmp_path)
    exec(compile(code, str(README), "exec"), {})
    assert capsys.readouterr().out
