// The extension module tamvik._tamvik: the open hive (HiveBase, from which
// the package's Hive derives) with its writes, and the types of Objects.h.
#include <pybind11/pybind11.h>

#include <cerrno>

#include "EditGuard.h"
#include "Session.h"
#include "KeyTime.h"
#include "Objects.h"
#include "Text.h"
#include "ToolError.h"

namespace py = pybind11;
using namespace pybind11::literals;

namespace TamvikPython {

namespace {

using Tamvik::CellOffset;
using Tamvik::HiveAccess;
using Tamvik::Status;
using Tamvik::StatusCode;

// Windows keeps keys at most 512 levels deep; a deeper subtree is a damaged
// hive's cycle, which a recursive delete must not follow forever.
constexpr int kDeepest = 512;

[[noreturn]] void Throw() { throw py::error_already_set(); }

void Check(const Status& status) {
    if (!status) {
        Raise(status);
        Throw();
    }
}

py::object Made(PyObject* object) {
    if (object == nullptr) Throw();
    return py::reinterpret_steal<py::object>(object);
}

HiveAccess& Access(HiveState& state) {
    HiveAccess* access = state.Open();
    if (access == nullptr) Throw();
    return *access;
}

Tamvik::WString Units(const py::handle& text) {
    Tamvik::WString units;
    if (!UnitsOf(text.ptr(), &units)) Throw();
    return units;
}

int StatusOfRefusal(int toolStatus) {
    switch (toolStatus) {
        case TamvikTool::kExitDirty: return kStatusDirty;
        case TamvikTool::kExitLocked: return kStatusLocked;
        case TamvikTool::kExitUnsafe: return kStatusUnsafe;
        case TamvikTool::kExitDamaged: return static_cast<int>(StatusCode::Damaged);
        default: return static_cast<int>(StatusCode::IoError);
    }
}

// A writable hive passes the tool's edit gate first: its lock (or the
// image's), then its refusal of a dirty or damaged hive unless forced. A
// hive inside an image is reached as the tool reaches it.
std::unique_ptr<HiveState> OpenHive(const std::string& path, bool write, bool force, const std::string& image,
                                    int partition) {
    auto state = std::make_unique<HiveState>();
    state->path = path;
    state->writable = write;
    TamvikTool::HivePlace place;
    place.hive = path;
    place.image = image;
    place.partition = partition;
    Status opened;
    int osError = 0;
    {
        py::gil_scoped_release unlocked;
        try {
            errno = 0;
            if (write) {
                state->gate = std::make_unique<TamvikTool::EditSession>(place, TamvikTool::EditOptions{force, true});
                state->access = &state->gate->Session().Hive();
            } else if (place.InImage()) {
                state->inImage = std::make_unique<TamvikTool::HiveSession>(place);
                state->access = &state->inImage->Hive();
            }
        } catch (const TamvikTool::ToolError& refused) {
            osError = errno;
            opened = Status::Of(static_cast<StatusCode>(StatusOfRefusal(refused.Status())), refused.what());
        }
        if (opened && state->access == nullptr) {
            errno = 0;
            opened = HiveAccess::Open(path, Tamvik::OpenMode::ReadOnly, &state->file);
            osError = errno;
            if (!opened) opened.text = path + ": " + opened.text;
            state->access = state->file.get();
        }
    }
    if (!opened) {
        Raise(static_cast<int>(opened.code), opened.text, opened.fileOffset, osError);
        Throw();
    }
    return state;
}

void Close(HiveState& state) {
    if (state.access == nullptr) return;
    state.access = nullptr;
    Status closed;
    {
        py::gil_scoped_release unlocked;
        try {
            if (state.gate != nullptr) state.gate->Commit();
            if (state.inImage != nullptr) state.inImage->Close();
        } catch (const TamvikTool::ToolError& failed) {
            closed = Status::Of(StatusCode::IoError, failed.what());
        }
        if (state.file != nullptr) closed = state.file->Close();
        state.gate.reset();
        state.inImage.reset();
        state.file.reset();
    }
    Check(closed);
}

Status DeleteTree(HiveAccess& access, CellOffset parent, CellOffset key, int depth) {
    if (depth > kDeepest) return Status::Of(StatusCode::Damaged, "the subtree is deeper than keys can be: a cycle");
    std::vector<Tamvik::SubKeyItem> items;
    if (Status listed = access.SubKeys(key, &items); !listed) return listed;
    for (const Tamvik::SubKeyItem& item : items)
        if (Status deleted = DeleteTree(access, key, item.cell, depth + 1); !deleted) return deleted;
    return access.DeleteSubKey(parent, key);
}

py::list StatusNames() {
    const std::pair<const char*, int> names[] = {
        {"OK", static_cast<int>(StatusCode::Ok)},
        {"NOT_FOUND", static_cast<int>(StatusCode::NotFound)},
        {"EXISTS", static_cast<int>(StatusCode::Exists)},
        {"INVALID", static_cast<int>(StatusCode::Invalid)},
        {"NOT_EMPTY", static_cast<int>(StatusCode::NotEmpty)},
        {"NOT_A_HIVE", static_cast<int>(StatusCode::NotAHive)},
        {"DAMAGED", static_cast<int>(StatusCode::Damaged)},
        {"BAD_DATA", static_cast<int>(StatusCode::BadData)},
        {"NO_ROOM", static_cast<int>(StatusCode::NoRoom)},
        {"IO_ERROR", static_cast<int>(StatusCode::IoError)},
        {"READ_ONLY", static_cast<int>(StatusCode::ReadOnly)},
        {"NO_MEMORY", static_cast<int>(StatusCode::NoMemory)},
        {"DIRTY", kStatusDirty},
        {"LOCKED", kStatusLocked},
        {"UNSAFE", kStatusUnsafe},
    };
    py::list list;
    for (const auto& [name, number] : names) list.append(py::make_tuple(name, number));
    return list;
}

}  // namespace

}  // namespace TamvikPython

PYBIND11_MODULE(_tamvik, module) {
    using namespace TamvikPython;
    if (!AddTypes(module.ptr())) throw py::error_already_set();
    module.attr("STATUSES") = StatusNames();
    module.def(
        "register",
        [](py::handle types, py::handle errors, py::handle encode) {
            if (!RegisterTypes(types.ptr(), encode.ptr())) Throw();
            SetErrorFactory(errors.ptr());
        },
        "types"_a, "errors"_a, "encode"_a);
    module.def(
        "create_hive",
        [](const std::string& path, std::uint32_t minor, py::handle rootName) {
            Tamvik::NewHiveOptions options;
            options.minorVersion = minor;
            options.rootName = Units(rootName);
            const Status created = HiveAccess::CreateHive(path, options);
            if (!created) {
                Raise(static_cast<int>(created.code), path + ": " + created.text);
                Throw();
            }
        },
        "path"_a, "minor"_a, "root_name"_a);

    py::class_<HiveState>(module, "HiveBase")
        .def(py::init(&OpenHive), "path"_a, "write"_a = false, "force"_a = false, "image"_a = "", "partition"_a = -1)
        .def("close", &Close, "Writes what is left and makes it durable; a writable hive's lock goes.")
        .def_property_readonly("closed", [](const HiveState& state) { return state.access == nullptr; })
        .def_property_readonly("writable", [](const HiveState& state) { return state.writable; })
        .def_property_readonly(
            "root",
            [](py::object self) {
                HiveState& state = self.cast<HiveState&>();
                HiveAccess& access = Access(state);
                Tamvik::KeyInfo info;
                Check(access.Info(access.Root(), &info));
                return Made(NewKey(self.ptr(), &state, access.Root(), TextOf(info.name), PyUnicode_FromString("")));
            },
            "The root key.")
        .def("_time",
             [](HiveState& state, CellOffset key) -> py::object {
                 Tamvik::KeyInfo info;
                 Check(Access(state).Info(key, &info));
                 const TamvikTool::KeyInstant instant = TamvikTool::ReadKeyTime(info.timestamp);
                 if (info.timestamp == 0) return py::none();
                 return py::make_tuple(instant.seconds, instant.ticks / 10);
             })
        .def("_delete_value",
             [](HiveState& state, CellOffset key, py::handle name) { Check(Access(state).DeleteValue(key, Units(name))); })
        .def("_delete_key", [](HiveState& state, CellOffset parent, CellOffset key, bool recursive) {
            HiveAccess& access = Access(state);
            Check(recursive ? DeleteTree(access, parent, key, 0) : access.DeleteSubKey(parent, key));
        });
}
