#include "Text.h"

#include <algorithm>
#include <cstring>

namespace TamvikPython {

namespace {

enum : std::uint32_t { kSz = 1, kExpandSz = 2, kDword = 4, kDwordBigEndian = 5, kLink = 6, kMultiSz = 7, kQword = 11 };

bool IsHigh(char16_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLow(char16_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

// Every surrogate in the units stands in a pair.
bool WellFormed(const char16_t* units, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (IsLow(units[i])) return false;
        if (IsHigh(units[i]) && (++i == count || !IsLow(units[i]))) return false;
    }
    return true;
}

// Copies the units into a new str of the narrowest kind that holds them.
template <class Unit>
PyObject* Narrowed(const char16_t* units, std::size_t count, Py_UCS4 widest) {
    PyObject* text = PyUnicode_New(static_cast<Py_ssize_t>(count), widest);
    if (text == nullptr) return nullptr;
    auto* target = static_cast<Unit*>(PyUnicode_DATA(text));
    for (std::size_t i = 0; i < count; ++i) target[i] = static_cast<Unit>(units[i]);
    return text;
}

}  // namespace

PyObject* TextOf(const char16_t* units, std::size_t count) {
    char16_t any = 0;
    bool surrogate = false;
    for (std::size_t i = 0; i < count; ++i) {
        any |= units[i];
        surrogate |= (units[i] & 0xF800) == 0xD800;
    }
    if (surrogate) {
        int order = -1;  // little-endian, as the units are in memory here
        return PyUnicode_DecodeUTF16(reinterpret_cast<const char*>(units), static_cast<Py_ssize_t>(count * 2),
                                     "surrogatepass", &order);
    }
    // The bits of all units together tell the kind: below 0x80 or 0x100 only when every unit is.
    if (any < 0x80) return Narrowed<Py_UCS1>(units, count, 0x7F);
    if (any < 0x100) return Narrowed<Py_UCS1>(units, count, 0xFF);
    return Narrowed<Py_UCS2>(units, count, 0xFFFF);
}

bool UnitsOf(PyObject* text, Tamvik::WString* units) {
    if (!PyUnicode_Check(text)) {
        PyErr_Format(PyExc_TypeError, "a name is a str, not %.100s", Py_TYPE(text)->tp_name);
        return false;
    }
    const Py_ssize_t length = PyUnicode_GET_LENGTH(text);
    const int kind = PyUnicode_KIND(text);
    const void* data = PyUnicode_DATA(text);
    // Narrow kinds widen unit for unit: names are mostly these.
    if (kind == PyUnicode_1BYTE_KIND) {
        const Py_UCS1* narrow = PyUnicode_1BYTE_DATA(text);
        units->assign(narrow, narrow + length);
        return true;
    }
    if (kind == PyUnicode_2BYTE_KIND) {
        const Py_UCS2* wide = PyUnicode_2BYTE_DATA(text);
        units->assign(wide, wide + length);
        return true;
    }
    units->clear();
    units->reserve(static_cast<std::size_t>(length));
    for (Py_ssize_t i = 0; i < length; ++i) {
        const Py_UCS4 c = PyUnicode_READ(kind, data, i);
        if (c < 0x10000) {
            units->push_back(static_cast<char16_t>(c));
        } else {
            units->push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
            units->push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
        }
    }
    return true;
}

namespace {

// The string types' data: the text before the first NUL. Without a NUL, the
// data must be whole units.
PyObject* DecodeText(const Tamvik::WString& units, bool whole, PyObject* raw) {
    const std::size_t end = units.find(u'\0');
    if ((end == Tamvik::WString::npos && !whole) || !WellFormed(units.data(), std::min(end, units.size())))
        return Py_NewRef(raw);
    return TextOf(units.data(), std::min(end, units.size()));
}

// A multi-string: its strings up to an empty one or the end of the data.
PyObject* DecodeMulti(const Tamvik::WString& units, bool whole, PyObject* raw) {
    PyObject* list = PyList_New(0);
    for (std::size_t start = 0; list != nullptr && start < units.size();) {
        std::size_t end = units.find(u'\0', start);
        if (end == start) break;
        if (end == Tamvik::WString::npos) end = units.size();
        if ((end == units.size() && !whole) || !WellFormed(units.data() + start, end - start)) {
            Py_DECREF(list);
            return Py_NewRef(raw);
        }
        PyObject* text = TextOf(units.data() + start, end - start);
        if (text == nullptr || PyList_Append(list, text) != 0) Py_CLEAR(list);
        Py_XDECREF(text);
        start = end + 1;
    }
    return list;
}

}  // namespace

PyObject* DecodeData(std::uint32_t type, PyObject* raw) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(PyBytes_AS_STRING(raw));
    const auto length = static_cast<std::size_t>(PyBytes_GET_SIZE(raw));
    if (type == kSz || type == kExpandSz || type == kLink || type == kMultiSz) {
        Tamvik::WString units(length / 2, u'\0');
        std::memcpy(units.data(), bytes, units.size() * 2);
        const bool whole = length % 2 == 0;
        return type == kMultiSz ? DecodeMulti(units, whole, raw) : DecodeText(units, whole, raw);
    }
    if ((type == kDword || type == kDwordBigEndian) && length == 4) {
        std::uint32_t n = 0;
        for (int i = 0; i < 4; ++i) n |= std::uint32_t{bytes[type == kDword ? i : 3 - i]} << (8 * i);
        return PyLong_FromUnsignedLong(n);
    }
    if (type == kQword && length == 8) {
        std::uint64_t n = 0;
        for (int i = 0; i < 8; ++i) n |= std::uint64_t{bytes[i]} << (8 * i);
        return PyLong_FromUnsignedLongLong(n);
    }
    return Py_NewRef(raw);
}

}  // namespace TamvikPython
