#!/usr/bin/python3
"""Prints the normalised listing of a hive as hivex reads it.

Usage: hivex_listing.py HIVE

One line per key and per value, in the stored order of the lists, depth first:

    K <TAB> path [<TAB> SKIP]
    V <TAB> path <TAB> name <TAB> type <TAB> hex of the data

The root key's path is a lone backslash, every other key's path is its
parent's path, a backslash (none after the root) and its own name. Names are
written as UTF-8; control characters (below 0x20 and 0x7F to 0x9F), '%' and
backslash become %XX, a lone UTF-16 surrogate becomes %uXXXX. A key whose name
holds a backslash or a NUL can't be opened by name through a path, so it is
listed with the SKIP marker and neither its values nor its subkeys follow.

Lines starting with '#' are notes for the reader, not part of the listing:
'#note' where another reader had to stand in for hivex, '#error' where a read
failed. The C++ walk in tests/support/ApiListing.cpp writes the same format.
"""

import struct
import sys

import hivex

# Data of at least this many bytes lies in segments behind a db record when
# the hive's minor version is 4 or more.
BIG_DATA_MIN = 16345


def escape_name(name):
    """The escaped UTF-8 form of a name, as the C++ walk writes it."""
    out = []
    for ch in name:
        code = ord(ch)
        if code < 0x20 or 0x7F <= code <= 0x9F or ch in "%\\":
            out.append("%%%02X" % code)
        elif 0xD800 <= code <= 0xDFFF:
            out.append("%%u%04X" % code)
        else:
            out.append(ch)
    return "".join(out).encode("utf-8", "surrogatepass").decode("utf-8")


def child_path(parent, escaped):
    return parent + escaped if parent == "\\" else parent + "\\" + escaped


class LibregfSide:
    """Reads values with libregf, for the segmented values hivex cuts short.

    hivex takes the length of the last segment of a db value from its cell
    size minus the cell header, so it can give up to four bytes too few.
    libregf honours the stored data length; its key is reached by the same
    positions as hivex's, opened only when needed.
    """

    def __init__(self, path):
        self.path = path
        self.file = None

    def value(self, positions, index):
        import pyregf

        if self.file is None:
            self.file = pyregf.file()
            self.file.open(self.path)
        key = self.file.get_root_key()
        for position in positions:
            key = key.get_sub_key(position)
        value = key.get_value(index)
        return value.type, bytes(value.data or b"")


def main():
    path = sys.argv[1]
    with open(path, "rb") as stream:
        base = stream.read(4096)
    minor = struct.unpack_from("<I", base, 0x18)[0]

    h = hivex.Hivex(path)
    regf = LibregfSide(path)
    out = sys.stdout

    # Explicit stack instead of recursion: depth follows the hive.
    stack = [(h.root(), "\\", [])]
    while stack:
        node, key_path, positions = stack.pop()
        if node is None:
            out.write("K\t%s\tSKIP\n" % key_path)
            continue
        out.write("K\t%s\n" % key_path)
        for index, value in enumerate(h.node_values(node)):
            name = escape_name(h.value_key(value))
            try:
                vtype, data = h.value_value(value)
                stored_length = h.value_type(value)[1]
            except RuntimeError as error:
                out.write("#error\t%s\t%s\t%s\n" % (key_path, name, error))
                continue
            if minor >= 4 and BIG_DATA_MIN <= stored_length < 0x80000000:
                rtype, rdata = regf.value(positions, index)
                if (rtype, rdata) != (vtype, data):
                    short_by = len(rdata) - len(data)
                    kind = ("hivex short by %d" % short_by
                            if rtype == vtype and 0 < short_by <= 4 and rdata.startswith(data)
                            else "hivex and libregf disagree")
                    out.write("#note\t%s\t%s\tdb value of %d bytes: %s; libregf's bytes used\n"
                              % (key_path, name, stored_length, kind))
                    vtype, data = rtype, rdata
            out.write("V\t%s\t%s\t%d\t%s\n" % (key_path, name, vtype, data.hex()))
        children = []
        for position, child in enumerate(h.node_children(node)):
            raw = h.node_name(child)
            escaped = escape_name(raw)
            sub_path = child_path(key_path, escaped)
            if "\\" in raw or "\0" in raw:
                children.append((None, sub_path, None))
            else:
                children.append((child, sub_path, positions + [position]))
        # Reversed, so that the first child comes off the stack first.
        stack.extend(reversed(children))


if __name__ == "__main__":
    main()
