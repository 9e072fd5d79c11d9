"""The build backend of pip install . : configures the project with CMake for the interpreter
that runs it, builds the extension, and packs the package into a wheel. It needs CMake, a C++
compiler, pybind11 and the interpreter's development files, and downloads nothing.
config_settings: build-dir (kept between builds; a temporary one otherwise), jobs."""

import base64
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import zipfile

SOURCE = pathlib.Path(__file__).resolve().parents[2]
NAME = "tamvik"


def _version():
    return re.search(r"project\(Tamvik VERSION ([0-9.]+)", (SOURCE / "CMakeLists.txt").read_text()).group(1)


def _build(build_dir, jobs):
    image = subprocess.run(["pkg-config", "--exists", "libnbd", "libntfs-3g", "zlib"]).returncode == 0
    configure = ["cmake", "-S", SOURCE, "-B", build_dir, "-DCMAKE_BUILD_TYPE=Release", "-DTAMVIK_TESTS=OFF",
                 "-DTAMVIK_PYTHON=ON", f"-DTAMVIK_IMAGE={'ON' if image else 'OFF'}", f"-DPython3_EXECUTABLE={sys.executable}"]
    if shutil.which("ninja"):
        configure += ["-G", "Ninja"]
    subprocess.run(configure, check=True, stdout=sys.stderr)
    subprocess.run(["cmake", "--build", build_dir, "--target", "tamvik_python", "-j", str(jobs)], check=True,
                   stdout=sys.stderr)
    package = pathlib.Path(build_dir) / "python" / NAME
    return sorted(p for p in package.iterdir() if p.suffix in (".py", ".pyi", ".typed", ".so"))


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    settings = config_settings or {}
    version = _version()
    python = f"cp{sys.version_info.major}{sys.version_info.minor}"
    tag = f"{python}-{python}-{re.sub('[-.]', '_', sysconfig.get_platform())}"
    info = f"{NAME}-{version}.dist-info"
    with tempfile.TemporaryDirectory() as scratch:
        files = _build(settings.get("build-dir", scratch), settings.get("jobs", os.cpu_count() or 1))
        entries = [(f"{NAME}/{f.name}", f.resolve().read_bytes()) for f in files]
    entries += [
        (f"{info}/METADATA", f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {version}\n"
                             "Summary: Windows registry hive files, read and edited offline\n".encode()),
        (f"{info}/WHEEL", f"Wheel-Version: 1.0\nGenerator: {NAME}_backend\nRoot-Is-Purelib: false\nTag: {tag}\n".encode()),
    ]
    record = "".join(_record_line(name, data) + "\n" for name, data in entries) + f"{info}/RECORD,,\n"
    wheel = f"{NAME}-{version}-{tag}.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / wheel, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data in entries + [(f"{info}/RECORD", record.encode())]:
            archive.writestr(name, data)
    return wheel


def build_sdist(sdist_directory, config_settings=None):
    base = f"{NAME}-{_version()}"
    tracked = subprocess.run(["git", "-C", SOURCE, "ls-files", "-z"], check=True, capture_output=True).stdout
    with tarfile.open(pathlib.Path(sdist_directory) / f"{base}.tar.gz", "w:gz") as archive:
        for name in filter(None, tracked.decode().split("\0")):
            archive.add(SOURCE / name, f"{base}/{name}", recursive=False)
    return f"{base}.tar.gz"
