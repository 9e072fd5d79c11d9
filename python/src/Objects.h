// The objects a read hands out by the thousand, as CPython types of their
// own: keys (a hive and a cell offset, with name and path), values, the
// subkeys and values of a key, and the depth-first walk. The package adds
// the methods it writes in Python to the types of keys and values.
#pragma once

#include <Python.h>

#include "State.h"

namespace TamvikPython {

struct KeyObject {
    PyObject_HEAD
    PyObject* hive;  // the Hive object, which keeps the state alive
    HiveState* state;
    Tamvik::CellOffset cell;
    PyObject* name;  // null until asked for when it is the end of path, from nameStart on
    PyObject* path;  // from the root, components joined by backslashes; "" for the root
    Py_ssize_t nameStart;
};

// Readies the types and adds Key, Value, SubKeys, Values and Walk to the module.
bool AddTypes(PyObject* module);
// The package's enum of value types, a dict of number to member, and its
// encode(data, type) -> (type, bytes) for Key.set.
bool RegisterTypes(PyObject* typeMembers, PyObject* encode);

// A key; takes over the references to name and path (either may be null,
// when making it failed: then the result is null too).
PyObject* NewKey(PyObject* hive, HiveState* state, Tamvik::CellOffset cell, PyObject* name, PyObject* path);
// The key at a path of names below a key, each component given the name
// the hive stores (so a path asked in any case reads as stored).
PyObject* KeyAt(KeyObject* from, PyObject* path, bool create);
// A walk of the key and everything below it.
PyObject* NewWalk(KeyObject* from);

}  // namespace TamvikPython
