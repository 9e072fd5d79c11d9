#include "State.h"

#include "EditGuard.h"
#include "Session.h"

namespace TamvikPython {

namespace {
PyObject* errorFactory = nullptr;
}

HiveState::HiveState() = default;
HiveState::~HiveState() = default;

Tamvik::HiveAccess* HiveState::Open() {
    if (access == nullptr) PyErr_SetString(PyExc_ValueError, "the hive is closed");
    return access;
}

void SetErrorFactory(PyObject* factory) {
    Py_XINCREF(factory);
    Py_XSETREF(errorFactory, factory);
}

PyObject* Raise(int code, const std::string& text, std::uint64_t fileOffset, int osError) {
    if (errorFactory == nullptr) {
        PyErr_SetString(PyExc_RuntimeError, text.c_str());
        return nullptr;
    }
    // A path in the text may hold any bytes: what isn't UTF-8 shows as U+FFFD.
    PyObject* message = PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
    PyObject* offset = fileOffset == Tamvik::kNoFileOffset ? Py_NewRef(Py_None) : PyLong_FromUnsignedLongLong(fileOffset);
    PyObject* error = message == nullptr || offset == nullptr
                          ? nullptr
                          : PyObject_CallFunction(errorFactory, "iOOi", code, message, offset, osError);
    Py_XDECREF(message);
    Py_XDECREF(offset);
    if (error != nullptr) {
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error)), error);
        Py_DECREF(error);
    }
    return nullptr;
}

PyObject* RaiseNotFound(const std::string& text) { return Raise(static_cast<int>(Tamvik::StatusCode::NotFound), text); }

}  // namespace TamvikPython
