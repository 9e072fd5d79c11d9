#!/usr/bin/python3
"""Lists a hive as one peer reader sees it, for the tests that compare readings.

Usage: listing.py hivex|libregf HIVE

Writes the listing format of tests/support/Listing.h, one line per key and
per value, depth first in stored list order:

    K <TAB> path [<TAB> SKIP]
    V <TAB> path <TAB> name <TAB> type <TAB> hex of the data

Each reader's bytes are written exactly as it delivers them, without any
stand-in from the other reader: the C++ side decides which differences are a
reader's known quirk. Every complaint of the reader becomes a line

    #error <TAB> path <TAB> what

so that the caller can fail on it. A reader that can't open the file at all
gives one #error line for the root and exit status 0, so that the complaint
is reported rather than lost in a crash.
"""

import sys


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


def skipped(raw):
    """Names that no path can reach are listed but not entered, as in the C++ walk."""
    return "\\" in raw or "\0" in raw


class HivexReader:
    def __init__(self, path):
        import hivex

        self.h = hivex.Hivex(path)

    def root(self):
        return self.h.root()

    def name(self, node):
        return self.h.node_name(node)

    def values(self, node):
        for value in self.h.node_values(node):
            name = self.h.value_key(value)
            vtype, data = self.h.value_value(value)
            yield name, vtype, data

    def children(self, node):
        return self.h.node_children(node)

    def complaints(self, node):
        return []


class LibregfReader:
    def __init__(self, path):
        import pyregf

        self.file = pyregf.file()
        self.file.open(path)

    def root(self):
        return self.file.get_root_key()

    def name(self, key):
        return key.name

    def values(self, key):
        for index in range(key.number_of_values):
            value = key.get_value(index)
            complaint = "value #%d is marked corrupted" % index if value.is_corrupted() else None
            if complaint:
                raise RuntimeError(complaint)
            yield value.name or "", value.type, bytes(value.data or b"")

    def children(self, key):
        return [key.get_sub_key(index) for index in range(key.number_of_sub_keys)]

    def complaints(self, key):
        # This libregf marks every key without values as corrupted; the mark
        # says something only for a key that has values.
        if key.is_corrupted() and key.number_of_values > 0:
            return ["key with values is marked corrupted"]
        return []


def main():
    mode, path = sys.argv[1], sys.argv[2]
    out = sys.stdout
    try:
        reader = HivexReader(path) if mode == "hivex" else LibregfReader(path)
        root = reader.root()
    except Exception as error:  # any refusal to open is the finding
        out.write("#error\t\\\topen: %s\n" % error)
        return
    if mode == "libregf" and reader.file.is_corrupted():
        out.write("#error\t\\\tfile is marked corrupted\n")

    # Explicit stack instead of recursion: depth follows the hive.
    stack = [(root, "\\")]
    while stack:
        node, key_path = stack.pop()
        if node is None:
            out.write("K\t%s\tSKIP\n" % key_path)
            continue
        out.write("K\t%s\n" % key_path)
        for complaint in reader.complaints(node):
            out.write("#error\t%s\t%s\n" % (key_path, complaint))
        try:
            for name, vtype, data in reader.values(node):
                out.write("V\t%s\t%s\t%d\t%s\n" % (key_path, escape_name(name), vtype, data.hex()))
        except Exception as error:
            out.write("#error\t%s\tvalues: %s\n" % (key_path, error))
        try:
            children = []
            for child in reader.children(node):
                raw = reader.name(child)
                sub_path = child_path(key_path, escape_name(raw))
                children.append((None if skipped(raw) else child, sub_path))
        except Exception as error:
            out.write("#error\t%s\tsubkeys: %s\n" % (key_path, error))
            continue
        # Reversed, so that the first child comes off the stack first.
        stack.extend(reversed(children))


if __name__ == "__main__":
    main()
