#include "FuzzSupport.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace RegAPI;

namespace TamvikFuzz {

namespace {

constexpr std::size_t kChecksumAt = 0x1FC;
constexpr std::size_t kModeByte = 0x1F8;
// Room for any stored name: NameLength has 16 bits, and a narrow-stored name
// widens to one unit per byte, which can take two bytes again in code page 936.
constexpr std::size_t kWideNameRoom = 65536 + 1;
constexpr std::size_t kNarrowNameRoom = 2 * 65536 + 1;

std::uint32_t Load32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

[[noreturn]] void Fail(const char* what, long detail) {
    std::fprintf(stderr, "tamvik fuzz: %s (%ld)\n", what, detail);
    std::abort();
}

// A heap block of exactly n bytes (never null, even for 0), so that ASan
// reports the first byte written or read behind the capacity we announced.
template <typename T>
std::unique_ptr<T[]> Exact(std::size_t n) {
    return std::make_unique_for_overwrite<T[]>(n);
}

bool Openable(const std::u16string& name) {
    if (name.empty()) return false;
    return std::none_of(name.begin(), name.end(), [](char16_t c) { return c == u'\\' || c == 0; });
}

std::string Narrow(const char* text, DWORD length) { return std::string(text, length); }

// The walk proper. One handle per level: a level opens its children by name
// one after the other, so the handles below a level die when it moves on, but
// the level's own handle stays valid.
class Walker {
public:
    Walker(HKEY hive, const WalkLimits& limits)
        : hive_(hive),
          limits_(limits),
          wideName_(Exact<WCHAR>(kWideNameRoom)),
          narrowName_(Exact<char>(kNarrowNameRoom)) {}

    WalkResult Run() {
        HKEY root = nullptr;
        LONG result = RegOpenKeyExW(hive_, u"", 0, 0, &root);
        CheckResult(result, "RegOpenKeyExW root");
        if (result == Result::Ok) {
            Expect(root != nullptr, "root handle null with result 0");
            WalkKey(root, u"", 0);
            Expect(RegCloseKey(root) == Result::Ok, "RegCloseKey on the root key");
        }
        // Lookups by full path from the hive handle; the first component names
        // the root whatever it is called.
        for (const std::u16string& path : result_.keyPaths) {
            HKEY found = nullptr;
            const std::u16string full = u"ROOT\\" + path;
            LONG byPath = RegOpenKeyExW(hive_, full.c_str(), 0, 0, &found);
            CheckResult(byPath, "RegOpenKeyExW by path");
            if (byPath == Result::Ok) {
                DWORD subKeys = 0, values = 0;
                Expect(RegQueryInfoKeyW(found, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values,
                                        nullptr, nullptr, nullptr, nullptr) == Result::Ok,
                       "RegQueryInfoKeyW after a path lookup");
            }
        }
        return std::move(result_);
    }

private:
    void WalkKey(HKEY key, const std::u16string& path, int depth) {
        if (++result_.keys > limits_.maxKeys) return;
        if (!path.empty() && result_.keyPaths.size() < limits_.maxPaths) result_.keyPaths.push_back(path);

        DWORD subKeys = 0, maxSubKey = 0, maxClass = 0, values = 0, maxValueName = 0, maxValue = 0;
        DWORD classLength = 0, securitySize = 0;
        FILETIME written{};
        Expect(RegQueryInfoKeyW(key, nullptr, &classLength, nullptr, &subKeys, &maxSubKey, &maxClass, &values,
                                &maxValueName, &maxValue, &securitySize, &written) == Result::Ok,
               "RegQueryInfoKeyW on a key");
        Expect(RegQueryInfoKeyA(key, nullptr, &classLength, nullptr, &subKeys, &maxSubKey, &maxClass, &values,
                                &maxValueName, &maxValue, &securitySize, &written) == Result::Ok,
               "RegQueryInfoKeyA on a key");
        Expect(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr, nullptr) == Result::Ok,
               "RegQueryInfoKeyW with null out-arguments");

        const DWORD valueSteps = std::min(values, limits_.maxIndex);
        for (DWORD i = 0; i < valueSteps; ++i) Value(key, i);
        // One past the end, where there is nothing to read.
        if (values < 0xFFFFFFFFu) {
            DWORD room = 8;
            auto name = Exact<WCHAR>(room);
            Expect(RegEnumValueW(key, values, name.get(), &room, nullptr, nullptr, nullptr, nullptr) ==
                       Result::Invalid,
                   "RegEnumValueW past the end");
        }

        const DWORD keySteps = std::min(subKeys, limits_.maxIndex);
        for (DWORD i = 0; i < keySteps && result_.keys <= limits_.maxKeys; ++i) SubKey(key, i, path, depth);
        if (subKeys < 0xFFFFFFFFu) {
            DWORD room = 8;
            auto name = Exact<WCHAR>(room);
            Expect(RegEnumKeyExW(key, subKeys, name.get(), &room, nullptr, nullptr, nullptr, nullptr) ==
                       Result::Invalid,
                   "RegEnumKeyExW past the end");
        }
    }

    // One value by position, wide and narrow, with data buffers of the exact
    // size, one byte short, empty and small; then the same value by name.
    void Value(HKEY key, DWORD index) {
        ++result_.values;
        DWORD nameRoom = static_cast<DWORD>(kWideNameRoom);
        DWORD type = 0, size = 0;
        LONG result = RegEnumValueW(key, index, wideName_.get(), &nameRoom, nullptr, &type, nullptr, &size);
        CheckResult(result, "RegEnumValueW sizing");
        if (result != Result::Ok) return;
        const std::u16string name(wideName_.get(), nameRoom);

        // A name buffer with no room for the terminator, and one of a single unit.
        {
            DWORD room = nameRoom;
            auto tight = Exact<WCHAR>(room);
            CheckResult(RegEnumValueW(key, index, tight.get(), &room, nullptr, nullptr, nullptr, nullptr),
                        "RegEnumValueW short name buffer");
            room = 1;
            auto one = Exact<WCHAR>(1);
            CheckResult(RegEnumValueW(key, index, one.get(), &room, nullptr, nullptr, nullptr, nullptr),
                        "RegEnumValueW one-unit name buffer");
        }
        ReadData(key, index, size, /*wide=*/true);

        // By name, when the name can be handed over as a C string.
        if (std::find(name.begin(), name.end(), u'\0') == name.end()) {
            DWORD byNameSize = 0, byNameType = 0;
            LONG byName = RegQueryValueExW(key, name.c_str(), nullptr, &byNameType, nullptr, &byNameSize);
            CheckResult(byName, "RegQueryValueExW sizing");
            if (byName == Result::Ok && byNameSize <= limits_.maxDataBytes) {
                DWORD room = byNameSize;
                auto data = Exact<BYTE>(room);
                CheckResult(RegQueryValueExW(key, name.c_str(), nullptr, &byNameType, data.get(), &room),
                            "RegQueryValueExW");
            }
        }

        // Narrow twins.
        DWORD narrowRoom = static_cast<DWORD>(kNarrowNameRoom);
        DWORD narrowSize = 0;
        result = RegEnumValueA(key, index, narrowName_.get(), &narrowRoom, nullptr, &type, nullptr, &narrowSize);
        CheckResult(result, "RegEnumValueA sizing");
        if (result != Result::Ok) return;
        Expect(narrowRoom < kNarrowNameRoom, "RegEnumValueA name length beyond its buffer");
        const std::string narrow = Narrow(narrowName_.get(), narrowRoom);
        {
            DWORD room = narrowRoom;
            auto tight = Exact<char>(room);
            CheckResult(RegEnumValueA(key, index, tight.get(), &room, nullptr, nullptr, nullptr, nullptr),
                        "RegEnumValueA short name buffer");
        }
        ReadData(key, index, narrowSize, /*wide=*/false);
        if (narrow.find('\0') == std::string::npos) {
            DWORD byNameSize = 0;
            LONG byName = RegQueryValueExA(key, narrow.c_str(), nullptr, &type, nullptr, &byNameSize);
            CheckResult(byName, "RegQueryValueExA sizing");
            for (DWORD room : {byNameSize, byNameSize / 2, byNameSize + 1, 3u}) {
                if (byName != Result::Ok || room > limits_.maxDataBytes) continue;
                DWORD given = room;
                auto data = Exact<BYTE>(given);
                CheckResult(RegQueryValueExA(key, narrow.c_str(), nullptr, &type, data.get(), &given),
                            "RegQueryValueExA");
            }
        }
    }

    void ReadData(HKEY key, DWORD index, DWORD size, bool wide) {
        std::vector<DWORD> rooms = {0, 3, 4, 5};
        if (size <= limits_.maxDataBytes) {
            rooms.push_back(size);
            if (size > 0) rooms.push_back(size - 1);
        }
        for (DWORD room : rooms) {
            DWORD given = room;
            DWORD type = 0;
            auto data = Exact<BYTE>(room);
            if (wide) {
                DWORD nameRoom = static_cast<DWORD>(kWideNameRoom);
                CheckResult(RegEnumValueW(key, index, wideName_.get(), &nameRoom, nullptr, &type, data.get(), &given),
                            "RegEnumValueW data");
            } else {
                DWORD nameRoom = static_cast<DWORD>(kNarrowNameRoom);
                CheckResult(
                    RegEnumValueA(key, index, narrowName_.get(), &nameRoom, nullptr, &type, data.get(), &given),
                    "RegEnumValueA data");
            }
        }
    }

    void SubKey(HKEY key, DWORD index, const std::u16string& path, int depth) {
        DWORD room = static_cast<DWORD>(kWideNameRoom);
        LONG result = RegEnumKeyExW(key, index, wideName_.get(), &room, nullptr, nullptr, nullptr, nullptr);
        CheckResult(result, "RegEnumKeyExW");
        Expect(result == Result::Ok || result == Result::Invalid || result == Result::Corrupt,
               "RegEnumKeyExW gave a number it never gives");
        if (result != Result::Ok) return;
        const std::u16string name(wideName_.get(), room);
        {
            DWORD tightRoom = room;  // no room for the terminator: refused
            auto tight = Exact<WCHAR>(tightRoom);
            Expect(RegEnumKeyExW(key, index, tight.get(), &tightRoom, nullptr, nullptr, nullptr, nullptr) ==
                       Result::Invalid,
                   "RegEnumKeyExW without room for the terminator");
        }
        // The narrow name buffer holds *nameLength + 1 bytes.
        for (DWORD narrowRoom : {0u, 1u, 3u, room}) {
            DWORD given = narrowRoom;
            auto buffer = Exact<char>(static_cast<std::size_t>(narrowRoom) + 1);
            CheckResult(RegEnumKeyExA(key, index, buffer.get(), &given, nullptr, nullptr, nullptr, nullptr),
                        "RegEnumKeyExA");
        }
        {
            DWORD given = static_cast<DWORD>(kNarrowNameRoom - 1);
            LONG listed = RegEnumKeyExA(key, index, narrowName_.get(), &given, nullptr, nullptr, nullptr, nullptr);
            CheckResult(listed, "RegEnumKeyExA");
            if (listed == Result::Ok && narrowName_[0] != 0 && Openable(name)) {
                HKEY viaNarrow = nullptr;
                LONG opened = RegOpenKeyExA(key, narrowName_.get(), 0, 0, &viaNarrow);
                Expect(opened == Result::Ok || opened == Result::Invalid, "RegOpenKeyExA result");
            }
        }
        if (!Openable(name) || depth + 1 >= limits_.maxDepth) return;
        HKEY child = nullptr;
        result = RegOpenKeyExW(key, name.c_str(), 0, 0, &child);
        Expect(result == Result::Ok || result == Result::Invalid, "RegOpenKeyExW result");
        if (result != Result::Ok) return;
        Expect(RegCloseKey(child) == Result::Ok, "RegCloseKey on a subkey");
        WalkKey(child, path.empty() ? name : path + u"\\" + name, depth + 1);
    }

    HKEY hive_;
    const WalkLimits& limits_;
    WalkResult result_;
    std::unique_ptr<WCHAR[]> wideName_;
    std::unique_ptr<char[]> narrowName_;
};

}  // namespace

void CheckResult(LONG result, const char* call) {
    switch (result) {
        case Result::Ok:
        case Result::HiveRefused:
        case Result::CannotCreate:
        case Result::AlreadyExists:
        case Result::Invalid:
        case Result::MoreData:
        case Result::Corrupt:
            return;
        default:
            Fail(call, result);
    }
}

void Expect(bool condition, const char* what) {
    if (!condition) Fail(what, 0);
}

// --- MemoryDevice ---------------------------------------------------------------

bool MemoryDevice::DeviceOpen(void** handle, const char16_t*, std::uint32_t, std::uint32_t, std::uint32_t) {
    *handle = this;
    position_ = 0;
    ++openHandles_;
    return true;
}

bool MemoryDevice::DeviceSeek(void*, std::uint64_t position, std::uint32_t origin) {
    std::uint64_t base = origin == 0 ? 0 : origin == 2 ? bytes_.size() : position_;
    if (position > kMaxSize || base + position > kMaxSize) return false;
    position_ = base + position;
    return true;
}

bool MemoryDevice::DeviceRead(void*, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    const std::uint32_t asked = *count;
    std::uint64_t available = position_ < bytes_.size() ? bytes_.size() - position_ : 0;
    std::uint64_t wanted = static_cast<std::uint64_t>(elementSize) * asked;
    std::uint64_t moved = std::min(available, wanted);
    if (moved != 0) std::memcpy(buffer, bytes_.data() + position_, moved);
    position_ += moved;
    *count = elementSize == 0 ? asked : static_cast<std::uint32_t>(moved / elementSize);
    return *count == asked;
}

bool MemoryDevice::DeviceWrite(void*, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    const std::uint32_t asked = *count;
    std::uint64_t length = static_cast<std::uint64_t>(elementSize) * asked;
    if (position_ + length > kMaxSize) {
        *count = 0;
        return false;
    }
    ++writes_;
    if (position_ + length > bytes_.size()) bytes_.resize(position_ + length, 0);
    if (length != 0) std::memcpy(bytes_.data() + position_, buffer, length);
    position_ += length;
    return true;
}

bool MemoryDevice::DeviceClose(void*) {
    --openHandles_;
    return true;
}

// --- HiveUnderTest ------------------------------------------------------------------

HiveUnderTest::HiveUnderTest(const Bytes& bytes, bool viaFile, bool readOnly) : viaFile_(viaFile), readOnly_(readOnly) {
    if (viaFile_) {
        fd_ = memfd_create("hive", 0);
        if (fd_ < 0) Fail("memfd_create", errno);
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
            if (n <= 0) Fail("write to memfd", errno);
            done += static_cast<std::size_t>(n);
        }
        const std::string path = "/proc/self/fd/" + std::to_string(fd_);
        path_.assign(path.begin(), path.end());
    } else {
        device_ = std::make_unique<MemoryDevice>(bytes);
        path_ = u"memory";
    }
}

HiveUnderTest::~HiveUnderTest() {
    Close();
    if (fd_ >= 0) close(fd_);
}

LONG HiveUnderTest::Open() {
    LONG result = viaFile_ ? OpenHiveW(path_.c_str(), &hive_, readOnly_)
                           : OpenHiveByVolumeW(path_.c_str(), device_.get(), &hive_);
    CheckResult(result, "open");
    Expect(result == Result::Ok || result == Result::HiveRefused || result == Result::Invalid,
           "open gave a number it never gives");
    if (result != Result::Ok) {
        hive_ = nullptr;
        if (device_ != nullptr) Expect(device_->OpenHandles() == 0, "refused open left the device open");
    }
    return result;
}

void HiveUnderTest::Close() {
    if (hive_ == nullptr) return;
    LONG result = viaFile_ ? CloseHive(&hive_) : CloseHiveByVolume(&hive_, device_.get());
    Expect(result == Result::Ok && hive_ == nullptr, "close of an open hive");
    if (device_ != nullptr) Expect(device_->OpenHandles() == 0, "device still open after the close");
}

Bytes HiveUnderTest::Contents() const {
    if (!viaFile_) return device_->Contents();
    struct stat info {};
    if (fstat(fd_, &info) != 0) Fail("fstat", errno);
    Bytes out(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (done < out.size()) {
        ssize_t n = pread(fd_, out.data() + done, out.size() - done, static_cast<off_t>(done));
        if (n <= 0) Fail("pread", errno);
        done += static_cast<std::size_t>(n);
    }
    return out;
}

std::uint64_t HiveUnderTest::DeviceWrites() const { return device_ != nullptr ? device_->Writes() : 0; }

// --- Inputs ----------------------------------------------------------------------------

void FixBaseBlock(Bytes& hive) {
    if (hive.size() < kChecksumAt + 4) return;
    if ((hive[kModeByte] & 1) != 0) return;
    std::memcpy(hive.data(), "regf", 4);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < 127; ++i) sum ^= Load32(hive.data() + 4 * i);
    if (sum == 0xFFFFFFFFu) sum = 0xFFFFFFFEu;
    if (sum == 0) sum = 1;
    for (int i = 0; i < 4; ++i) hive[kChecksumAt + i] = static_cast<std::uint8_t>(sum >> (8 * i));
}

bool WantsFile(const Bytes& hive) { return hive.size() > kModeByte && (hive[kModeByte] & 2) != 0; }

WalkResult WalkHive(HKEY hive, const WalkLimits& limits) { return Walker(hive, limits).Run(); }

}  // namespace TamvikFuzz
