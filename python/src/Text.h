// Names and data between the hive's UTF-16 and Python objects.
#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>

#include "store/Platform.h"

namespace TamvikPython {

// A str of the units; a lone surrogate stays one code point (names are
// whatever a hive holds). New reference, or null with an exception set.
PyObject* TextOf(const char16_t* units, std::size_t count);
inline PyObject* TextOf(const Tamvik::WString& units) { return TextOf(units.data(), units.size()); }

// The UTF-16 units of a str; false with TypeError when it is none.
bool UnitsOf(PyObject* text, Tamvik::WString* units);

// A value's data as Python reads it: text for the string types, a list of
// text for a multi-string, an int for the number types when the length is
// theirs; raw itself (a bytes object) for everything else and for data that
// doesn't decode. New reference.
PyObject* DecodeData(std::uint32_t type, PyObject* raw);

}  // namespace TamvikPython
