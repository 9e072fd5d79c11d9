#include "Objects.h"

#include <structmember.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>
#include <vector>

#include "Text.h"

namespace TamvikPython {

using Tamvik::CellOffset;
using Tamvik::HiveAccess;
using Tamvik::Status;
using Tamvik::StatusCode;
using Tamvik::WString;

namespace {

struct ValueObject {
    PyObject_HEAD
    PyObject* name;
    PyObject* type;  // a RegType member, or an int for a number without a name
    PyObject* raw;
    PyObject* data;  // decoded on first use
    std::uint32_t typeNumber;
};

// The subkeys or the values of one key.
struct ViewObject {
    PyObject_HEAD
    KeyObject* key;
};

// Keys still to be given, the last on top, and the keys whose subkeys were
// taken already: a key reached again (a list that names it twice, or a
// damaged hive's cycle) is given again but not entered again, so that a walk
// ends after as many steps as the hive has list entries.
struct Walker {
    struct Pending {
        CellOffset cell;
        PyObject* path;  // a reference
        Py_ssize_t nameStart;  // where the name starts in path; -1 for the first key, whose name is given
    };
    ~Walker() {
        for (const Pending& pending : stack) Py_XDECREF(pending.path);
        Py_XDECREF(firstName);
    }
    std::vector<Pending> stack;
    PyObject* firstName = nullptr;  // the name of the key the walk starts at
    std::vector<std::uint64_t> entered;  // a bit per 8-byte cell offset

    bool FirstEntry(CellOffset cell) {
        const std::size_t bit = cell / 8;
        if (bit / 64 >= entered.size()) entered.resize(bit / 64 + 1);
        std::uint64_t& word = entered[bit / 64];
        const std::uint64_t mask = std::uint64_t{1} << (bit % 64);
        const bool first = (word & mask) == 0;
        word |= mask;
        return first;
    }
};

struct WalkObject {
    PyObject_HEAD
    PyObject* hive;
    HiveState* state;
    Walker* walker;
    PyObject* pair;  // the last (path, key) given, or null
};

PyTypeObject* keyType;
PyTypeObject* valueType;
PyTypeObject* subKeysType;
PyTypeObject* valuesType;
PyTypeObject* walkType;
// The RegType members of the numbers that have names.
constexpr std::uint32_t kNamedTypes = 12;
PyObject* typeMembers[kNamedTypes];
// The package's encode(data, type) -> (type, bytes), for what Key.set isn't given as bytes and a type.
PyObject* encoder;

KeyObject* AsKey(PyObject* object) { return reinterpret_cast<KeyObject*>(object); }

// An instance with its fields unset (the types hold no reference cycles and
// skip the collector; their instances are made by the thousand).
template <class Object>
Object* Allocate(PyTypeObject* type) {
    auto* object = static_cast<Object*>(PyObject_Malloc(sizeof(Object)));
    if (object == nullptr) return reinterpret_cast<Object*>(PyErr_NoMemory());
    PyObject_Init(reinterpret_cast<PyObject*>(object), type);  // a heap type: its instance holds a reference to it
    return object;
}

void Free(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    type->tp_free(self);
    Py_DECREF(type);
}

// "A\B" below parent: name itself below the root.
PyObject* JoinPath(PyObject* parent, PyObject* name) {
    const Py_ssize_t head = PyUnicode_GET_LENGTH(parent);
    if (head == 0) return Py_NewRef(name);
    const Py_ssize_t tail = PyUnicode_GET_LENGTH(name);
    PyObject* path = PyUnicode_New(head + 1 + tail, std::max(PyUnicode_MAX_CHAR_VALUE(parent), PyUnicode_MAX_CHAR_VALUE(name)));
    if (path == nullptr) return nullptr;
    PyUnicode_CopyCharacters(path, 0, parent, 0, head);
    PyUnicode_WRITE(PyUnicode_KIND(path), PyUnicode_DATA(path), head, '\\');
    PyUnicode_CopyCharacters(path, head + 1, name, 0, tail);
    return path;
}

// A list the state keeps for reads, taken for one read and given back.
template <class Item>
struct Scratch {
    explicit Scratch(std::vector<Item>* kept) : kept(kept), items(std::move(*kept)) {}
    ~Scratch() { *kept = std::move(items); }
    std::vector<Item>* kept;
    std::vector<Item> items;
};

// Raises NotFound with a message made of Python objects.
PyObject* NotFound(const char* format, PyObject* name, PyObject* where) {
    PyObject* message = PyUnicode_FromFormat(format, name, where);
    if (message == nullptr) return nullptr;
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(message, &size);
    if (text != nullptr) RaiseNotFound(std::string(text, static_cast<std::size_t>(size)));
    Py_DECREF(message);
    return nullptr;
}

// Where the name of a key below parentPath starts in its path.
Py_ssize_t NameStart(PyObject* parentPath) {
    const Py_ssize_t head = PyUnicode_GET_LENGTH(parentPath);
    return head == 0 ? 0 : head + 1;
}

// The path of a key named by units below parent: the units are put in place
// without a str of the name being made first.
PyObject* JoinPath(PyObject* parent, const WString& units) {
    char16_t any = 0;
    for (char16_t unit : units) any |= unit;
    const Py_ssize_t head = PyUnicode_GET_LENGTH(parent);
    if (any >= 0xD800 || (head != 0 && PyUnicode_KIND(parent) != PyUnicode_1BYTE_KIND)) {
        PyObject* name = TextOf(units);  // a surrogate, or a wide parent: the general way
        PyObject* path = name == nullptr ? nullptr : JoinPath(parent, name);
        Py_XDECREF(name);
        return path;
    }
    const Py_ssize_t start = NameStart(parent);
    const Py_UCS4 widest = std::max<Py_UCS4>(head == 0 ? 0 : PyUnicode_MAX_CHAR_VALUE(parent), any < 0x80 ? 0x7F : any);
    PyObject* path = PyUnicode_New(start + static_cast<Py_ssize_t>(units.size()), widest);
    if (path == nullptr) return nullptr;
    const int kind = PyUnicode_KIND(path);
    void* data = PyUnicode_DATA(path);
    if (head != 0) {
        if (kind == PyUnicode_1BYTE_KIND) std::memcpy(data, PyUnicode_1BYTE_DATA(parent), static_cast<std::size_t>(head));
        else PyUnicode_CopyCharacters(path, 0, parent, 0, head);
        PyUnicode_WRITE(kind, data, head, '\\');
    }
    for (std::size_t i = 0; i < units.size(); ++i) PyUnicode_WRITE(kind, data, start + static_cast<Py_ssize_t>(i), units[i]);
    return path;
}

// ---- keys

// The key's name (borrowed), made from its path when first asked for.
PyObject* KeyName(KeyObject* key) {
    if (key->name == nullptr)
        key->name = PyUnicode_Substring(key->path, key->nameStart, PyUnicode_GET_LENGTH(key->path));
    return key->name;
}

PyObject* KeyNameGet(PyObject* self, void*) { return Py_XNewRef(KeyName(AsKey(self))); }

// A key whose name is the end of its path, from nameStart on, made when
// asked for; takes over the reference to path (null when making it failed).
PyObject* NewKeyNamedByPath(PyObject* hive, HiveState* state, CellOffset cell, PyObject* path, Py_ssize_t nameStart) {
    KeyObject* key = path == nullptr ? nullptr : Allocate<KeyObject>(keyType);
    if (key == nullptr) {
        Py_XDECREF(path);
        return nullptr;
    }
    key->hive = Py_NewRef(hive);
    key->state = state;
    key->cell = cell;
    key->name = nullptr;
    key->path = path;
    key->nameStart = nameStart;
    return reinterpret_cast<PyObject*>(key);
}

void KeyDealloc(PyObject* self) {
    KeyObject* key = AsKey(self);
    Py_XDECREF(key->hive);
    Py_XDECREF(key->name);
    Py_XDECREF(key->path);
    Free(self);
}

PyObject* NewView(PyTypeObject* type, PyObject* key) {
    auto* view = PyObject_New(ViewObject, type);
    if (view != nullptr) view->key = AsKey(Py_NewRef(key));
    return reinterpret_cast<PyObject*>(view);
}

PyObject* KeySubKeys(PyObject* self, void*) { return NewView(subKeysType, self); }
PyObject* KeyValues(PyObject* self, void*) { return NewView(valuesType, self); }
PyObject* KeySubscript(PyObject* self, PyObject* path) { return KeyAt(AsKey(self), path, false); }

PyObject* KeyCompare(PyObject* a, PyObject* b, int op) {
    if ((op != Py_EQ && op != Py_NE) || !PyObject_TypeCheck(b, keyType)) Py_RETURN_NOTIMPLEMENTED;
    const bool same = AsKey(a)->hive == AsKey(b)->hive && AsKey(a)->cell == AsKey(b)->cell;
    return PyBool_FromLong(same == (op == Py_EQ));
}

Py_hash_t KeyHash(PyObject* self) {
    const auto hash = static_cast<Py_hash_t>(reinterpret_cast<std::uintptr_t>(AsKey(self)->hive) >> 4) * 1000003 ^
                      AsKey(self)->cell;
    return hash == -1 ? -2 : hash;
}

PyObject* KeyWalk(PyObject* self, PyObject*) { return NewWalk(AsKey(self)); }
PyObject* KeyCreate(PyObject* self, PyObject* path) { return KeyAt(AsKey(self), path, true); }

// A value type as stored: an int (RegType is one) from 0 to 0xFFFFFFFF.
bool TypeNumber(PyObject* type, std::uint32_t* number) {
    if (!PyLong_Check(type)) return false;
    const unsigned long long n = PyLong_AsUnsignedLongLong(type);
    if (n == static_cast<unsigned long long>(-1) && PyErr_Occurred()) {
        PyErr_Clear();
        return false;
    }
    if (n > UINT32_MAX) return false;
    *number = static_cast<std::uint32_t>(n);
    return true;
}

// set(name, data, type=None): the arguments given by position or by name.
bool SetArguments(PyObject* const* args, Py_ssize_t count, PyObject* keywords, PyObject* given[3]) {
    static const char* const names[] = {"name", "data", "type"};
    given[0] = given[1] = given[2] = nullptr;
    bool fits = count <= 3;
    for (Py_ssize_t i = 0; fits && i < count; ++i) given[i] = args[i];
    const Py_ssize_t named = keywords == nullptr ? 0 : PyTuple_GET_SIZE(keywords);
    for (Py_ssize_t k = 0; fits && k < named; ++k) {
        int slot = 0;
        while (slot < 3 && PyUnicode_CompareWithASCIIString(PyTuple_GET_ITEM(keywords, k), names[slot]) != 0) ++slot;
        fits = slot < 3 && given[slot] == nullptr;
        if (fits) given[slot] = args[count + k];
    }
    if (!fits || given[0] == nullptr || given[1] == nullptr) {
        PyErr_SetString(PyExc_TypeError, "set(name, data, type=None)");
        return false;
    }
    if (given[2] == nullptr) given[2] = Py_None;
    return true;
}

// Bytes with a type are stored as they are; anything else goes through the
// package's encoder first, which infers the type and makes the bytes.
PyObject* KeySet(PyObject* self, PyObject* const* args, Py_ssize_t count, PyObject* keywords) {
    PyObject* given[3];
    if (!SetArguments(args, count, keywords, given)) return nullptr;
    PyObject* data = given[1];
    std::uint32_t type = 0;
    PyObject* encoded = nullptr;
    if (!PyBytes_Check(data) || !TypeNumber(given[2], &type)) {
        encoded = PyObject_CallFunctionObjArgs(encoder, data, given[2], nullptr);
        if (encoded == nullptr) return nullptr;
        if (!PyTuple_Check(encoded) || PyTuple_GET_SIZE(encoded) != 2 || !PyBytes_Check(PyTuple_GET_ITEM(encoded, 1)) ||
            !TypeNumber(PyTuple_GET_ITEM(encoded, 0), &type)) {
            Py_DECREF(encoded);
            PyErr_SetString(PyExc_TypeError, "a value's type is a number from 0 to 0xFFFFFFFF");
            return nullptr;
        }
        data = PyTuple_GET_ITEM(encoded, 1);
    }
    KeyObject* key = AsKey(self);
    HiveAccess* access = key->state->Open();
    WString name;
    bool done = access != nullptr && UnitsOf(given[0], &name);
    if (done) {
        const Py_ssize_t length = PyBytes_GET_SIZE(data);
        const Status set =
            length > Py_ssize_t{UINT32_MAX}
                ? Status::Of(StatusCode::Invalid, "the data is longer than a value holds")
                : access->SetValue(key->cell, name, type, reinterpret_cast<const std::uint8_t*>(PyBytes_AS_STRING(data)),
                                   static_cast<std::uint32_t>(length));
        if (!set) {
            Raise(set);
            done = false;
        }
    }
    Py_XDECREF(encoded);
    if (!done) return nullptr;
    Py_RETURN_NONE;
}

PyMethodDef keyMethods[] = {
    {"_walk", KeyWalk, METH_NOARGS, nullptr},
    {"create", KeyCreate, METH_O,
     "create(path): the key at path below this one, made with any keys missing above it (in Windows' order)."},
    {"set", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(KeySet)), METH_FASTCALL | METH_KEYWORDS,
     "set(name, data, type=None): creates the value or replaces its type and data. Without a type: str is\n"
     "REG_SZ, a list of str REG_MULTI_SZ, an int REG_DWORD (REG_QWORD past 32 bits), None REG_NONE, bytes\n"
     "REG_BINARY. bytes are stored as they are whatever the type."},
    {nullptr, nullptr, 0, nullptr},
};
PyMemberDef keyMembers[] = {
    {"path", T_OBJECT_EX, offsetof(KeyObject, path), READONLY, "The path from the root, \"\" for the root."},
    {"hive", T_OBJECT_EX, offsetof(KeyObject, hive), READONLY, "The hive the key is in."},
    {"cell", T_UINT, offsetof(KeyObject, cell), READONLY, "The offset of the key's cell in the hive's bins."},
    {nullptr, 0, 0, 0, nullptr},
};
PyGetSetDef keyGetters[] = {
    {"name", KeyNameGet, nullptr, "The key's name as the hive stores it.", nullptr},
    {"subkeys", KeySubKeys, nullptr, "The key's subkeys: len(), iteration, [name], in.", nullptr},
    {"values", KeyValues, nullptr, "The key's values: len(), iteration, [name] (\"\" the default value), in, get().", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};
PyType_Slot keySlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(KeyDealloc)},
    {Py_tp_members, keyMembers},
    {Py_tp_methods, keyMethods},
    {Py_tp_getset, keyGetters},
    {Py_mp_subscript, reinterpret_cast<void*>(KeySubscript)},
    {Py_tp_richcompare, reinterpret_cast<void*>(KeyCompare)},
    {Py_tp_hash, reinterpret_cast<void*>(KeyHash)},
    {0, nullptr},
};

// ---- values

PyObject* TypeObject(std::uint32_t type) {
    if (type < kNamedTypes && typeMembers[type] != nullptr) return Py_NewRef(typeMembers[type]);
    return PyLong_FromUnsignedLong(type);
}

PyObject* NewValue(const Tamvik::ValueItem& item) {
    auto* value = Allocate<ValueObject>(valueType);
    if (value == nullptr) return nullptr;
    value->data = nullptr;
    value->typeNumber = item.type;
    value->name = TextOf(item.name);
    value->type = TypeObject(item.type);
    value->raw = PyBytes_FromStringAndSize(reinterpret_cast<const char*>(item.data.data()),
                                           static_cast<Py_ssize_t>(item.data.size()));
    if (value->name != nullptr && value->type != nullptr && value->raw != nullptr) return reinterpret_cast<PyObject*>(value);
    Py_DECREF(value);
    return nullptr;
}

void ValueDealloc(PyObject* self) {
    auto* value = reinterpret_cast<ValueObject*>(self);
    Py_XDECREF(value->name);
    Py_XDECREF(value->type);
    Py_XDECREF(value->raw);
    Py_XDECREF(value->data);
    Free(self);
}

PyObject* ValueData(PyObject* self, void*) {
    auto* value = reinterpret_cast<ValueObject*>(self);
    if (value->data == nullptr) value->data = DecodeData(value->typeNumber, value->raw);
    return Py_XNewRef(value->data);
}

PyObject* ValueCompare(PyObject* a, PyObject* b, int op) {
    if ((op != Py_EQ && op != Py_NE) || !PyObject_TypeCheck(b, valueType)) Py_RETURN_NOTIMPLEMENTED;
    auto* x = reinterpret_cast<ValueObject*>(a);
    auto* y = reinterpret_cast<ValueObject*>(b);
    int same = x->typeNumber == y->typeNumber;
    if (same == 1) same = PyObject_RichCompareBool(x->name, y->name, Py_EQ);
    if (same == 1) same = PyObject_RichCompareBool(x->raw, y->raw, Py_EQ);
    if (same < 0) return nullptr;
    return PyBool_FromLong((same == 1) == (op == Py_EQ));
}

PyObject* ValueRepr(PyObject* self) {
    auto* value = reinterpret_cast<ValueObject*>(self);
    PyObject* data = ValueData(self, nullptr);
    PyObject* type = value->typeNumber < kNamedTypes ? PyObject_GetAttrString(value->type, "name") : PyObject_Repr(value->type);
    PyObject* text = data != nullptr && type != nullptr
                         ? PyUnicode_FromFormat("Value(name=%R, type=%U, data=%R)", value->name, type, data)
                         : nullptr;
    Py_XDECREF(data);
    Py_XDECREF(type);
    return text;
}

PyMemberDef valueMembers[] = {
    {"name", T_OBJECT_EX, offsetof(ValueObject, name), READONLY, "The value's name; \"\" for the default value."},
    {"type", T_OBJECT_EX, offsetof(ValueObject, type), READONLY, "A RegType, or an int for a type without a name."},
    {"raw", T_OBJECT_EX, offsetof(ValueObject, raw), READONLY, "The data's bytes as stored."},
    {nullptr, 0, 0, 0, nullptr},
};
PyGetSetDef valueGetters[] = {
    {"data", ValueData, nullptr,
     "The data decoded: str, list of str or int by the type, else (and when it doesn't decode) the bytes.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};
PyType_Slot valueSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(ValueDealloc)},
    {Py_tp_members, valueMembers},
    {Py_tp_getset, valueGetters},
    {Py_tp_richcompare, reinterpret_cast<void*>(ValueCompare)},
    {Py_tp_hash, reinterpret_cast<void*>(PyObject_HashNotImplemented)},
    {Py_tp_repr, reinterpret_cast<void*>(ValueRepr)},
    {0, nullptr},
};

// ---- the subkeys and values of a key

void ViewDealloc(PyObject* self) {
    Py_XDECREF(reinterpret_cast<ViewObject*>(self)->key);
    Free(self);
}

KeyObject* ViewKey(PyObject* self) { return reinterpret_cast<ViewObject*>(self)->key; }

// The counts the key records.
bool Counts(KeyObject* key, Tamvik::KeyInfo* info) {
    HiveAccess* access = key->state->Open();
    if (access == nullptr) return false;
    const Status read = access->Info(key->cell, info);
    if (!read) Raise(read);
    return read.Ok();
}

Py_ssize_t SubKeysLength(PyObject* self) {
    Tamvik::KeyInfo info;
    return Counts(ViewKey(self), &info) ? static_cast<Py_ssize_t>(info.subKeys) : -1;
}

Py_ssize_t ValuesLength(PyObject* self) {
    Tamvik::KeyInfo info;
    return Counts(ViewKey(self), &info) ? static_cast<Py_ssize_t>(info.values) : -1;
}

// What a key holds as an iterator (over a tuple: lighter to make than a
// list). A position that can't be read is left out; a list of which nothing
// can be read raises.
template <class Item, class Make>
PyObject* IterateItems(const Status& listed, const std::vector<Item>& items, Make make) {
    if (items.empty() && !listed) return Raise(listed);
    Py_ssize_t readable = 0;
    for (const Item& item : items) readable += item.status ? 1 : 0;
    PyObject* list = PyTuple_New(readable);
    Py_ssize_t at = 0;
    for (const Item& item : items) {
        if (list == nullptr || !item.status) continue;
        PyObject* made = make(item);
        if (made == nullptr) Py_CLEAR(list);
        else PyTuple_SET_ITEM(list, at++, made);
    }
    if (list == nullptr) return nullptr;
    PyObject* iterator = PyObject_GetIter(list);
    Py_DECREF(list);
    return iterator;
}

PyObject* SubKeysIter(PyObject* self) {
    KeyObject* key = ViewKey(self);
    HiveAccess* access = key->state->Open();
    if (access == nullptr) return nullptr;
    Scratch<Tamvik::SubKeyItem> scratch(&key->state->subKeyItems);
    const Status listed = access->SubKeys(key->cell, &scratch.items);
    return IterateItems(listed, scratch.items,
                        [key](const Tamvik::SubKeyItem& item) {
                            return NewKeyNamedByPath(key->hive, key->state, item.cell, JoinPath(key->path, item.name),
                                                     NameStart(key->path));
                        });
}

PyObject* ValuesIter(PyObject* self) {
    KeyObject* key = ViewKey(self);
    HiveAccess* access = key->state->Open();
    if (access == nullptr) return nullptr;
    Scratch<Tamvik::ValueItem> scratch(&key->state->valueItems);
    const Status listed = access->Values(key->cell, true, &scratch.items);
    return IterateItems(listed, scratch.items, NewValue);
}

// The subkey of that one name (which may hold a backslash).
PyObject* SubKeysSubscript(PyObject* self, PyObject* name) {
    KeyObject* key = ViewKey(self);
    HiveAccess* access = key->state->Open();
    WString units;
    if (access == nullptr || !UnitsOf(name, &units)) return nullptr;
    CellOffset cell = 0;
    Tamvik::KeyInfo info;
    Status found = access->FindSubKey(key->cell, units, &cell);
    if (found.code == StatusCode::NotFound) return NotFound("no subkey %R in key %R", name, key->path);
    if (found) found = access->Info(cell, &info);
    if (!found) return Raise(found);
    PyObject* stored = TextOf(info.name);
    return NewKey(key->hive, key->state, cell, stored, stored == nullptr ? nullptr : JoinPath(key->path, stored));
}

int SubKeysContains(PyObject* self, PyObject* name) {
    PyObject* found = SubKeysSubscript(self, name);
    Py_XDECREF(found);
    if (found != nullptr) return 1;
    if (!PyErr_ExceptionMatches(PyExc_KeyError)) return -1;
    PyErr_Clear();
    return 0;
}

// The value of that name, or null: with an exception set unless absent is
// given, which then tells that there is no such value.
PyObject* FindValue(PyObject* self, PyObject* name, bool withData, bool* absent) {
    KeyObject* key = ViewKey(self);
    HiveAccess* access = key->state->Open();
    WString units;
    if (access == nullptr || !UnitsOf(name, &units)) return nullptr;
    Tamvik::ValueItem item;
    const Status found = access->FindValue(key->cell, units, withData, &item);
    if (found.code == StatusCode::NotFound) {
        if (absent != nullptr) *absent = true;
        return absent != nullptr ? nullptr : NotFound("no value %R in key %R", name, key->path);
    }
    return found ? NewValue(item) : Raise(found);
}

PyObject* ValuesSubscript(PyObject* self, PyObject* name) { return FindValue(self, name, true, nullptr); }

int ValuesContains(PyObject* self, PyObject* name) {
    bool absent = false;
    PyObject* found = FindValue(self, name, false, &absent);
    Py_XDECREF(found);
    return absent ? 0 : found != nullptr ? 1 : -1;
}

PyObject* ValuesGet(PyObject* self, PyObject* const* args, Py_ssize_t count) {
    if (count < 1 || count > 2) {
        PyErr_SetString(PyExc_TypeError, "get(name, default=None)");
        return nullptr;
    }
    bool absent = false;
    PyObject* found = FindValue(self, args[0], true, &absent);
    if (absent) return Py_NewRef(count == 2 ? args[1] : Py_None);
    return found;
}

PyObject* ViewRepr(PyObject* self) {
    return PyUnicode_FromFormat("<%s of %R>", Py_TYPE(self)->tp_name, ViewKey(self)->path);
}

PyMethodDef valuesMethods[] = {
    {"get", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(ValuesGet)), METH_FASTCALL,
     "get(name, default=None): the Value of that name, or default."},
    {nullptr, nullptr, 0, nullptr},
};
PyType_Slot subKeysSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(ViewDealloc)},
    {Py_tp_iter, reinterpret_cast<void*>(SubKeysIter)},
    {Py_mp_length, reinterpret_cast<void*>(SubKeysLength)},
    {Py_mp_subscript, reinterpret_cast<void*>(SubKeysSubscript)},
    {Py_sq_contains, reinterpret_cast<void*>(SubKeysContains)},
    {Py_tp_repr, reinterpret_cast<void*>(ViewRepr)},
    {0, nullptr},
};
PyType_Slot valuesSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(ViewDealloc)},
    {Py_tp_iter, reinterpret_cast<void*>(ValuesIter)},
    {Py_mp_length, reinterpret_cast<void*>(ValuesLength)},
    {Py_mp_subscript, reinterpret_cast<void*>(ValuesSubscript)},
    {Py_sq_contains, reinterpret_cast<void*>(ValuesContains)},
    {Py_tp_methods, valuesMethods},
    {Py_tp_repr, reinterpret_cast<void*>(ViewRepr)},
    {0, nullptr},
};

// ---- the walk

void WalkDealloc(PyObject* self) {
    auto* walk = reinterpret_cast<WalkObject*>(self);
    delete walk->walker;
    Py_XDECREF(walk->hive);
    Py_XDECREF(walk->pair);
    Free(self);
}

PyObject* WalkNext(PyObject* self) {
    auto* walk = reinterpret_cast<WalkObject*>(self);
    Walker& walker = *walk->walker;
    if (walker.stack.empty()) return nullptr;
    HiveAccess* access = walk->state->Open();
    if (access == nullptr) return nullptr;
    const Walker::Pending next = walker.stack.back();
    walker.stack.pop_back();
    PyObject* key = next.nameStart < 0 ? NewKey(walk->hive, walk->state, next.cell, Py_NewRef(walker.firstName), next.path)
                                       : NewKeyNamedByPath(walk->hive, walk->state, next.cell, next.path, next.nameStart);
    if (key == nullptr) return nullptr;
    PyObject* path = Py_NewRef(AsKey(key)->path);
    if (walker.FirstEntry(next.cell)) {
        // The subkeys' paths are made now, while their names are at hand.
        Scratch<Tamvik::SubKeyItem> scratch(&walk->state->subKeyItems);
        access->SubKeys(next.cell, &scratch.items);  // what can't be read is left out
        const Py_ssize_t nameStart = NameStart(path);
        for (std::size_t i = scratch.items.size(); i-- > 0;) {
            const Tamvik::SubKeyItem& item = scratch.items[i];
            if (!item.status) continue;
            PyObject* below = JoinPath(path, item.name);
            if (below == nullptr) {
                Py_DECREF(path);
                Py_DECREF(key);
                return nullptr;
            }
            walker.stack.push_back({item.cell, below, nameStart});
        }
    }
    // A loop that unpacks each pair has let go of the last one by now: it is
    // filled anew (as zip() does) rather than freed and made again.
    PyObject* pair = walk->pair;
    if (pair != nullptr && Py_REFCNT(pair) == 1) {
        PyObject* lastPath = PyTuple_GET_ITEM(pair, 0);
        PyObject* lastKey = PyTuple_GET_ITEM(pair, 1);
        PyTuple_SET_ITEM(pair, 0, path);
        PyTuple_SET_ITEM(pair, 1, key);
        Py_DECREF(lastPath);
        Py_DECREF(lastKey);
        if (!PyObject_GC_IsTracked(pair)) PyObject_GC_Track(pair);  // the collector may have let it go
        return Py_NewRef(pair);
    }
    pair = PyTuple_New(2);
    if (pair == nullptr) {
        Py_DECREF(path);
        Py_DECREF(key);
        return nullptr;
    }
    PyTuple_SET_ITEM(pair, 0, path);
    PyTuple_SET_ITEM(pair, 1, key);
    Py_XSETREF(walk->pair, Py_NewRef(pair));
    return pair;
}

PyType_Slot walkSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(WalkDealloc)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(WalkNext)},
    {0, nullptr},
};

constexpr unsigned kFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION;
PyType_Spec keySpec = {"tamvik.Key", sizeof(KeyObject), 0, kFlags, keySlots};
PyType_Spec valueSpec = {"tamvik.Value", sizeof(ValueObject), 0, kFlags, valueSlots};
PyType_Spec subKeysSpec = {"tamvik.SubKeys", sizeof(ViewObject), 0, kFlags, subKeysSlots};
PyType_Spec valuesSpec = {"tamvik.Values", sizeof(ViewObject), 0, kFlags, valuesSlots};
PyType_Spec walkSpec = {"tamvik.Walk", sizeof(WalkObject), 0, kFlags, walkSlots};

}  // namespace

bool AddTypes(PyObject* module) {
    const struct {
        PyType_Spec* shape;
        PyTypeObject** type;
        const char* name;
    } types[] = {{&keySpec, &keyType, "Key"},
                 {&valueSpec, &valueType, "Value"},
                 {&subKeysSpec, &subKeysType, "SubKeys"},
                 {&valuesSpec, &valuesType, "Values"},
                 {&walkSpec, &walkType, "Walk"}};
    for (const auto& t : types) {
        PyObject* type = PyType_FromSpec(t.shape);
        if (type == nullptr || PyModule_AddObjectRef(module, t.name, type) != 0) return false;
        *t.type = reinterpret_cast<PyTypeObject*>(type);  // the module keeps it
        Py_DECREF(type);
    }
    return true;
}

bool RegisterTypes(PyObject* members, PyObject* encode) {
    if (!PyDict_Check(members) || !PyCallable_Check(encode)) {
        PyErr_SetString(PyExc_TypeError, "register({number: RegType}, errors, encode)");
        return false;
    }
    Py_INCREF(encode);
    Py_XSETREF(encoder, encode);
    for (std::uint32_t type = 0; type < kNamedTypes; ++type) {
        PyObject* number = PyLong_FromUnsignedLong(type);
        if (number == nullptr) return false;
        PyObject* member = PyDict_GetItemWithError(members, number);
        Py_DECREF(number);
        if (member == nullptr && PyErr_Occurred()) return false;
        Py_XINCREF(member);
        Py_XSETREF(typeMembers[type], member);
    }
    return true;
}

PyObject* NewKey(PyObject* hive, HiveState* state, CellOffset cell, PyObject* name, PyObject* path) {
    if (name == nullptr) {
        Py_XDECREF(path);
        return nullptr;
    }
    PyObject* key = NewKeyNamedByPath(hive, state, cell, path, 0);
    if (key == nullptr) {
        Py_DECREF(name);
        return nullptr;
    }
    reinterpret_cast<KeyObject*>(key)->name = name;
    return key;
}

PyObject* KeyAt(KeyObject* from, PyObject* path, bool create) {
    HiveAccess* access = from->state->Open();
    WString units;
    if (access == nullptr || !UnitsOf(path, &units)) return nullptr;
    CellOffset cell = from->cell;
    WString stored, last;  // the names the hive stores, joined; the last of them
    for (std::size_t start = 0; start <= units.size();) {
        const std::size_t end = std::min(units.find(u'\\', start), units.size());
        const WString component = units.substr(start, end - start);
        start = end + 1;
        if (component.empty()) continue;  // "\A", "A\" and "A\\B" name what "A" and "A\B" name
        CellOffset next = 0;
        // A new key at the end of the path is what create is mostly asked for:
        // making it is tried first, and the key is looked up only when the hive
        // refuses (it exists, or can't be written), which ends as before.
        const bool createFirst = create && units.find_first_not_of(u'\\', start) == WString::npos;
        Status found = createFirst ? access->CreateSubKey(cell, component, Tamvik::ListOrder::Windows, &next)
                                   : Status::Of(StatusCode::NotFound, "");
        if (found) {
            last = component;
        } else {
            const Status made = found;
            found = access->FindSubKey(cell, component, &next);
            if (found.code == StatusCode::NotFound && create) {
                found = createFirst ? made : access->CreateSubKey(cell, component, Tamvik::ListOrder::Windows, &next);
                last = component;
            } else if (found) {
                Tamvik::KeyInfo info;
                found = access->Info(next, &info);
                last = std::move(info.name);
            }
        }
        if (found.code == StatusCode::NotFound) {
            PyObject* name = TextOf(component);
            PyObject* below = TextOf(stored);
            PyObject* where = below == nullptr ? nullptr : JoinPath(from->path, below);
            if (name != nullptr && where != nullptr) NotFound("no key %R in key %R", name, where);
            Py_XDECREF(name);
            Py_XDECREF(below);
            Py_XDECREF(where);
            return nullptr;
        }
        if (!found) return Raise(found);
        stored += stored.empty() ? last : u'\\' + last;
        cell = next;
    }
    if (stored.empty()) return Py_NewRef(reinterpret_cast<PyObject*>(from));
    // A path of one name as the hive stores it (a key just made, mostly) is the key's name as given.
    if (last == units && PyUnicode_CheckExact(path))
        return NewKey(from->hive, from->state, cell, Py_NewRef(path), JoinPath(from->path, path));
    PyObject* below = TextOf(stored);
    PyObject* full = below == nullptr ? nullptr : JoinPath(from->path, below);
    Py_XDECREF(below);
    return NewKey(from->hive, from->state, cell, TextOf(last), full);
}

PyObject* NewWalk(KeyObject* from) {
    auto* walk = PyObject_New(WalkObject, walkType);
    if (walk == nullptr) return nullptr;
    walk->hive = Py_NewRef(from->hive);
    walk->state = from->state;
    walk->pair = nullptr;
    walk->walker = new (std::nothrow) Walker;
    PyObject* fromName = KeyName(from);
    if (walk->walker == nullptr || fromName == nullptr) {
        if (!PyErr_Occurred()) PyErr_NoMemory();
        Py_DECREF(walk);
        return nullptr;
    }
    walk->walker->firstName = Py_NewRef(fromName);
    walk->walker->stack.push_back({from->cell, Py_NewRef(from->path), -1});
    return reinterpret_cast<PyObject*>(walk);
}

}  // namespace TamvikPython
