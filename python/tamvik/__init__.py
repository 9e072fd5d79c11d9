"""Windows registry hive files, read and edited offline.

    import tamvik
    with tamvik.open("SYSTEM") as hive:
        for service in hive["ControlSet001\\Services"].subkeys:
            print(service.name, service.get("Start"))

Keys are a hive and a cell offset: any number of them may be in use at once,
and none ends another. Each write is in the file when the call returns;
closing the hive makes it durable.
"""

import datetime as _datetime
import enum as _enum
import errno as _errno
import os as _os

from . import _tamvik

__all__ = [
    "open", "new", "Hive", "Key", "Value", "SubKeys", "Values", "RegType", "Status",
    "Error", "NotFoundError", "ExistsError", "InvalidError", "AccessError", "HiveNotFoundError",
    "DamagedHiveError", "DirtyHiveError", "LockedError",
]


class RegType(_enum.IntEnum):
    """The value types that have names; Value.type is a plain int for any other number."""

    REG_NONE = 0
    REG_SZ = 1
    REG_EXPAND_SZ = 2
    REG_BINARY = 3
    REG_DWORD = 4
    REG_DWORD_BIG_ENDIAN = 5
    REG_LINK = 6
    REG_MULTI_SZ = 7
    REG_RESOURCE_LIST = 8
    REG_FULL_RESOURCE_DESCRIPTOR = 9
    REG_RESOURCE_REQUIREMENTS_LIST = 10
    REG_QWORD = 11


Status = _enum.IntEnum("Status", _tamvik.STATUSES, module=__name__)
Status.__doc__ = "What kind of failure an Error reports: the library's statuses, and DIRTY and LOCKED for refused opens."


class Error(Exception):
    """A failure Tamvik reports: .status (a Status), .offset (the file offset it concerns, or None)."""

    def __init__(self, status, text, offset=None):
        super().__init__(text)
        self.status = status
        self.offset = offset

    def __str__(self):
        return self.args[0]


class NotFoundError(Error, KeyError):
    """No key or value of that name."""


class ExistsError(Error, FileExistsError):
    """The file or key exists already."""


class InvalidError(Error, ValueError):
    """An argument the operation can't take."""


class AccessError(Error, PermissionError):
    """The system refused the file, or the hive was opened for reading only."""


class HiveNotFoundError(Error, FileNotFoundError):
    """No hive file at that path."""


class DamagedHiveError(Error):
    """The hive's structure doesn't hold: opening for writing refuses it (force=True edits it anyway)."""


class DirtyHiveError(Error):
    """The hive is dirty, its latest changes maybe only in its logs: opening for writing refuses it."""


class LockedError(Error):
    """Another process is editing the hive."""


_BY_STATUS = {
    Status.NOT_FOUND: NotFoundError, Status.EXISTS: ExistsError, Status.INVALID: InvalidError,
    Status.READ_ONLY: AccessError, Status.NOT_A_HIVE: DamagedHiveError, Status.DAMAGED: DamagedHiveError,
    Status.BAD_DATA: DamagedHiveError, Status.DIRTY: DirtyHiveError, Status.LOCKED: LockedError,
    Status.UNSAFE: AccessError,
}
_BY_ERRNO = {
    _errno.ENOENT: HiveNotFoundError, _errno.EACCES: AccessError, _errno.EPERM: AccessError,
    _errno.EROFS: AccessError, _errno.EEXIST: ExistsError,
}


def _error(code, text, offset, os_error):
    status = Status(code)
    kind = _BY_ERRNO.get(os_error) if status in (Status.IO_ERROR, Status.EXISTS) else None
    error = (kind or _BY_STATUS.get(status, Error))(status, text, offset)
    if os_error and isinstance(error, OSError):
        error.errno, error.strerror = os_error, _os.strerror(os_error)
    return error


_EPOCH = _datetime.datetime(1970, 1, 1, tzinfo=_datetime.timezone.utc)


def _utf16(text):
    return text.encode("utf-16-le", "surrogatepass") + b"\0\0"


def _encode(data, type):
    """The type and bytes of a value to store: the type from the data when none is given."""
    if type is None:
        if isinstance(data, str):
            type = RegType.REG_SZ
        elif isinstance(data, (list, tuple)):
            type = RegType.REG_MULTI_SZ
        elif isinstance(data, int):
            type = RegType.REG_DWORD if 0 <= data <= 0xFFFFFFFF else RegType.REG_QWORD
        elif data is None:
            type = RegType.REG_NONE
        else:
            type = RegType.REG_BINARY
    type = int(type)
    if isinstance(data, (bytes, bytearray, memoryview)):
        return type, bytes(data)
    if data is None:
        return type, b""
    if isinstance(data, str) and type in (RegType.REG_SZ, RegType.REG_EXPAND_SZ, RegType.REG_LINK):
        return type, _utf16(data)
    if isinstance(data, (list, tuple)) and type == RegType.REG_MULTI_SZ and all(isinstance(s, str) for s in data):
        if "" in data:
            raise InvalidError(Status.INVALID, "a multi-string can't hold an empty string: it would end the list")
        return type, b"".join(map(_utf16, data)) + b"\0\0"
    if isinstance(data, int) and type in (RegType.REG_DWORD, RegType.REG_DWORD_BIG_ENDIAN, RegType.REG_QWORD):
        size = 8 if type == RegType.REG_QWORD else 4
        if not 0 <= data < 1 << (8 * size):
            raise InvalidError(Status.INVALID, f"{data} doesn't fit {RegType(type).name}")
        return type, data.to_bytes(size, "big" if type == RegType.REG_DWORD_BIG_ENDIAN else "little")
    raise TypeError(f"can't store {_builtin_type(data).__name__} data as type {type}")


_builtin_type = type


def _extends(cls):
    """Puts what a class body defines onto the extension type of that name, which the reads make
    by the thousand (a Python subclass would make each of them cost more)."""
    target = getattr(_tamvik, cls.__name__)
    for name, attribute in vars(cls).items():
        if name not in ("__module__", "__qualname__", "__dict__", "__weakref__"):
            setattr(target, name, attribute)
    return target


@_extends
class Value:
    """A value: .name ("" for the default value), .type (RegType, or an int for a number without a
    name), .raw (the bytes) and .data: str for REG_SZ, REG_EXPAND_SZ and REG_LINK (the text before
    the first NUL), list of str for REG_MULTI_SZ, int for REG_DWORD, REG_DWORD_BIG_ENDIAN and
    REG_QWORD; bytes for the other types and for data that doesn't decode as its type says."""


@_extends
class Key:
    """A key: .name, .path (from the root, "" for the root), .subkeys, .values, key["Sub\\Path"]
    (any letter case). Keys are a hive and a cell offset: any number may be in use at once."""

    @property
    def last_write(self):
        """When the key last changed, an aware datetime in UTC (None when it holds no time)."""
        instant = self.hive._time(self.cell)
        if instant is None:
            return None
        try:
            return _EPOCH + _datetime.timedelta(seconds=instant[0], microseconds=instant[1])
        except OverflowError:
            return None

    def get(self, name, default=None):
        """The data of the value of that name (decoded as Value.data), or default."""
        value = self.values.get(name)
        return default if value is None else value.data

    def delete_value(self, name):
        """Deletes the value of that name ("" the default value)."""
        self.hive._delete_value(self.cell, name)

    def delete(self, name, recursive=False):
        """Deletes the subkey at name (a path below this key); with recursive, its subkeys too."""
        head, _, last = name.strip("\\").rpartition("\\")
        parent = self[head]
        self.hive._delete_key(parent.cell, parent.subkeys[last].cell, recursive)

    def __repr__(self):
        return f"<tamvik.Key {self.path!r}>"


class Hive(_tamvik.HiveBase):
    """An open hive file; tamvik.open() and tamvik.new() give one. A context manager."""

    def __init__(self, path, write=False, force=False, *, image=None, partition=None):
        super().__init__(_os.fsencode(path), write, force,
                         _os.fsencode(image) if image is not None else b"",
                         -1 if partition is None else partition)
        self.path = _os.fspath(path)
        self.image = None if image is None else _os.fspath(image)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.close()

    def __getitem__(self, path):
        return self.root[path]

    def walk(self, path=None):
        """(path, key) for the key at path (the root by default) and every key below it, depth first."""
        return (self.root if path is None else self.root[path])._walk()

    def __repr__(self):
        state = "closed" if self.closed else "writable" if self.writable else "read-only"
        return f"<tamvik.Hive {self.path!r} {state}>"


SubKeys = _tamvik.SubKeys
Values = _tamvik.Values
_tamvik.register({int(t): t for t in RegType}, _error, _encode)


def open(path, write=False, *, force=False, image=None, partition=None):
    """Opens a hive file. For writing, the hive is locked while open and, as the tool does, refused
    when it is dirty or damaged unless force is given. With image (a disk image: raw, qcow2, vmdk,
    vhdx, vhd, vdi), path is the hive's path inside the image's NTFS file system, in any letter
    case, with / or \\; partition (numbered from 1) picks the volume when more than one holds it.
    Writes go into the image itself, which is locked while the hive is open; a volume Windows left
    hibernated or unclean is refused for writing (AccessError, status UNSAFE)."""
    return Hive(path, write, force, image=image, partition=partition)


def new(path, *, minor=5, root_name="ROOT"):
    """Writes a new, empty hive of version 1.minor to a file that doesn't exist yet; opened for writing."""
    _tamvik.create_hive(_os.fsencode(path), minor, root_name)
    return Hive(path, True)
