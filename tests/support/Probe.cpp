// A bounded walk through every read function, checking each answer (see Probe.h).
#include "support/Probe.h"

#include <algorithm>
#include <memory>
#include <span>

namespace TamvikTest {

using namespace RegAPI;

namespace {

// Room for any stored name: NameLength has 16 bits, and a name widened one
// unit per byte can take two bytes again in code page 936.
constexpr DWORD kWideRoom = 65536 + 1;
constexpr DWORD kNarrowRoom = 2 * 65536 + 1;

// A heap block of exactly n elements, never null.
template <typename T>
std::unique_ptr<T[]> Exact(std::size_t n) {
    return std::make_unique_for_overwrite<T[]>(n == 0 ? 1 : n);
}

// The name buffers live as long as the process: blocks this large cost a
// fresh mapping at every allocation under a sanitizer, and fuzzing walks
// hundreds of hives a second.
template <typename T>
T* NameBuffer(std::size_t n) {
    static const std::unique_ptr<T[]> buffer = Exact<T>(n);
    return buffer.get();
}

bool Openable(const std::u16string& name) {
    return !name.empty() && name.find_first_of(std::u16string(u"\\\0", 2)) == std::u16string::npos;
}

class Walker {
public:
    Walker(HKEY hive, const ProbeLimits& limits)
        : hive_(hive), limits_(limits), wide_(NameBuffer<WCHAR>(kWideRoom)), narrow_(NameBuffer<char>(kNarrowRoom)) {}

    ProbeResult Run() {
        HKEY root = nullptr;
        if (Check(RegOpenKeyExW(hive_, u"", 0, 0, &root), "open root", {0, 87}) == 0) {
            Key(root, u"", 0);
            Check(RegCloseKey(root), "RegCloseKey", {0});
        }
        // Lookups by whole path from the hive handle.
        const std::size_t lookups = limits_.everyCapacity ? out_.paths.size() : std::min<std::size_t>(out_.paths.size(), 8);
        for (const std::u16string& path : std::span(out_.paths).first(lookups)) {
            HKEY found = nullptr;
            if (Check(RegOpenKeyExW(hive_, (u"ROOT\\" + path).c_str(), 0, 0, &found), "open by path", {0, 87}) == 0)
                Check(RegQueryInfoKeyW(found, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), "info after a path lookup", {0});
        }
        return std::move(out_);
    }

private:
    LONG Check(LONG result, const char* call, std::initializer_list<LONG> allowed) {
        if (!IsResultNumber(result) || std::find(allowed.begin(), allowed.end(), result) == allowed.end())
            out_.violations.push_back(std::string(call) + " gave " + std::to_string(result));
        return result;
    }
    void Expect(bool condition, const char* what) {
        if (!condition) out_.violations.push_back(what);
    }

    void Key(HKEY key, const std::u16string& path, int depth) {
        if (++out_.keys > limits_.maxKeys) return;
        if (!path.empty() && out_.paths.size() < 64) out_.paths.push_back(path);
        DWORD subKeys = 0, maxSub = 0, values = 0, maxName = 0, maxData = 0, ignored = 0x5EED;
        FILETIME time{7, 7};
        Check(RegQueryInfoKeyW(key, nullptr, &ignored, &ignored, &subKeys, &maxSub, &ignored, &values, &maxName,
                               &maxData, &ignored, &time), "RegQueryInfoKeyW", {0});
        Check(RegQueryInfoKeyA(key, nullptr, 0, 0, &subKeys, 0, 0, &values, 0, 0, 0, 0), "RegQueryInfoKeyA", {0});
        Expect(ignored == 0x5EED && time.dwLowDateTime == 7, "an ignored argument was written");
        for (DWORD i = 0; i < std::min(values, limits_.maxIndex); ++i) Value(key, i);
        for (DWORD i = 0; i < std::min(subKeys, limits_.maxIndex) && out_.keys <= limits_.maxKeys; ++i)
            SubKey(key, i, path, depth);
        DWORD room = 8;
        auto name = Exact<WCHAR>(room);
        if (values < 0xFFFFFFFF) Check(RegEnumValueW(key, values, name.get(), &room, 0, 0, 0, 0), "value past the end", {87});
        if (subKeys < 0xFFFFFFFF) Check(RegEnumKeyExW(key, subKeys, name.get(), &room, 0, 0, 0, 0), "key past the end", {87});
    }

    // Data through a buffer of each interesting capacity.
    void Data(HKEY key, DWORD index, DWORD size, bool wide) {
        for (DWORD room : {size, size - 1, 0u, 3u, 4u, 5u}) {
            if (room > limits_.maxData || (room == size - 1 && size == 0)) continue;
            if (!limits_.everyCapacity && room != size && room != size - 1) break;
            DWORD given = room, type = 0, nameRoom = wide ? kWideRoom : kNarrowRoom;
            auto data = Exact<BYTE>(room);
            const LONG rc = wide ? RegEnumValueW(key, index, wide_, &nameRoom, 0, &type, data.get(), &given)
                                 : RegEnumValueA(key, index, narrow_, &nameRoom, 0, &type, data.get(), &given);
            Check(rc, wide ? "RegEnumValueW data" : "RegEnumValueA data", {0, 234, 1015});
            if (wide && rc == 234) Expect(given == room, "234 changed the capacity");
        }
    }

    void Value(HKEY key, DWORD index) {
        ++out_.values;
        DWORD nameRoom = kWideRoom, type = 0, size = 0;
        if (Check(RegEnumValueW(key, index, wide_, &nameRoom, 0, &type, 0, &size), "RegEnumValueW", {0, 1015}) != 0)
            return;
        const std::u16string name(wide_, nameRoom);
        DWORD tight = nameRoom;
        auto shortName = Exact<WCHAR>(tight);
        Check(RegEnumValueW(key, index, shortName.get(), &tight, 0, 0, 0, 0), "name without room", {87});
        Data(key, index, size, true);
        if (name.find(u'\0') == std::u16string::npos && size <= limits_.maxData) {
            DWORD room = size;
            auto data = Exact<BYTE>(room);
            Check(RegQueryValueExW(key, name.c_str(), 0, &type, data.get(), &room), "RegQueryValueExW", {0, 234});
        }
        DWORD narrowRoom = kNarrowRoom, narrowSize = 0;
        if (Check(RegEnumValueA(key, index, narrow_, &narrowRoom, 0, 0, 0, &narrowSize), "RegEnumValueA",
                  {0, 1015}) != 0)
            return;
        Expect(narrowRoom < kNarrowRoom, "RegEnumValueA name beyond its buffer");
        const std::string narrow(narrow_, narrowRoom);
        Data(key, index, narrowSize, false);
        if (narrow.find('\0') != std::string::npos) return;
        for (DWORD room : {narrowSize, narrowSize / 2, narrowSize + 1, 3u}) {
            if (room > limits_.maxData) continue;
            if (!limits_.everyCapacity && room != narrowSize) break;
            DWORD given = room;
            auto data = Exact<BYTE>(room);
            Check(RegQueryValueExA(key, narrow.c_str(), 0, 0, data.get(), &given), "RegQueryValueExA", {0, 87, 234});
        }
    }

    void SubKey(HKEY key, DWORD index, const std::u16string& path, int depth) {
        DWORD room = kWideRoom;
        if (Check(RegEnumKeyExW(key, index, wide_, &room, 0, 0, 0, 0), "RegEnumKeyExW", {0, 1015}) != 0) return;
        const std::u16string name(wide_, room);
        DWORD tight = room;
        auto shortName = Exact<WCHAR>(tight);
        Check(RegEnumKeyExW(key, index, shortName.get(), &tight, 0, 0, 0, 0), "key name without room", {87});
        for (DWORD narrowRoom : {room, 0u, 1u, 3u}) {  // the narrow buffer holds *nameLength + 1 bytes
            if (!limits_.everyCapacity && narrowRoom != room) break;
            DWORD given = narrowRoom;
            auto buffer = Exact<char>(narrowRoom + 1);
            Check(RegEnumKeyExA(key, index, buffer.get(), &given, 0, 0, 0, 0), "RegEnumKeyExA", {0, 87, 1015});
        }
        if (!Openable(name) || depth + 1 >= limits_.maxDepth) return;
        HKEY child = nullptr;
        if (Check(RegOpenKeyExW(key, name.c_str(), 0, 0, &child), "RegOpenKeyExW", {0, 87}) != 0) return;
        Key(child, path.empty() ? name : path + u"\\" + name, depth + 1);
    }

    HKEY hive_;
    const ProbeLimits& limits_;
    ProbeResult out_;
    WCHAR* wide_;
    char* narrow_;
};

}  // namespace

bool IsResultNumber(LONG result) {
    for (LONG known : {0, 5, 57, 72, 87, 234, 1015})
        if (result == known) return true;
    return false;
}

ProbeResult Probe(HKEY hive, const ProbeLimits& limits) { return Walker(hive, limits).Run(); }

}  // namespace TamvikTest
