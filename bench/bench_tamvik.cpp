// Tamvik's side of the benchmark: the workloads of Workload.h through the
// public API only. It also draws the W2 lookup list from the large hive.
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "RegAPI.h"
#include "Workload.h"

using namespace RegAPI;
using bench::Fail;

namespace {

// The bench's names and paths are ASCII, so widening is unit by unit.
std::u16string Wide(std::string_view text) {
    std::u16string wide;
    for (unsigned char c : text) wide += static_cast<char16_t>(c);
    return wide;
}

// Units past ASCII become a control character, which PlainName refuses.
std::string Narrow(const std::u16string& text) {
    std::string narrow;
    for (char16_t c : text) narrow += c < 0x80 ? static_cast<char>(c) : '\x01';
    return narrow;
}

class OpenHive {
public:
    OpenHive(const std::string& path, bool readOnly) : path_(path) {
        if (LONG result = OpenHiveW(Wide(path).c_str(), &handle_, readOnly); result != Result::Ok)
            Fail("tamvik: can't open %s (result %d)", path.c_str(), result);
    }
    OpenHive(const OpenHive&) = delete;
    OpenHive& operator=(const OpenHive&) = delete;
    ~OpenHive() {
        if (handle_ != nullptr) CloseHive(&handle_);
    }
    HKEY get() const { return handle_; }
    void Close() {
        if (CloseHive(&handle_) != Result::Ok) Fail("tamvik: closing %s failed", path_.c_str());
        handle_ = nullptr;
    }

private:
    std::string path_;
    HKEY handle_ = nullptr;
};

HKEY Open(HKEY from, const char16_t* path) {
    HKEY key = nullptr;
    if (LONG result = RegOpenKeyExW(from, path, 0, 0, &key); result != Result::Ok)
        Fail("tamvik: can't open %s (result %d)", Narrow(path).c_str(), result);
    return key;
}
HKEY Open(HKEY from, const std::u16string& path) { return Open(from, path.c_str()); }

// A caller's buffer, as a C caller's array would be: written before it is
// read, so it isn't cleared first, and growing forgets what it held.
template <class T>
class Room {
public:
    explicit Room(std::size_t size) { resize(size); }
    T* data() { return items_.get(); }
    std::size_t size() const { return size_; }
    void resize(std::size_t size) {
        if (size <= size_) return;
        items_ = std::make_unique_for_overwrite<T[]>(size);
        size_ = size;
    }

private:
    std::unique_ptr<T[]> items_;
    std::size_t size_ = 0;
};

// Reads data through query(buffer, &size), growing buffer when the data don't
// fit (a key's stored maximum can be stale); gives the size read.
template <class Query>
DWORD ReadData(Room<BYTE>& buffer, Query query) {
    DWORD size = static_cast<DWORD>(buffer.size());
    LONG result = query(buffer.data(), &size);
    if (result == Result::MoreData && query(nullptr, &size) == Result::Ok) {
        buffer.resize(size);
        result = query(buffer.data(), &size);
    }
    if (result != Result::Ok) Fail("tamvik: value data unreadable (result %d)", result);
    return size;
}

// Depth first, one handle per level: each level opens its subkeys by name in turn.
class Walker {
public:
    Walker(bench::Totals& totals, std::vector<bench::Candidate>* candidates = nullptr)
        : totals_(totals), candidates_(candidates) {}

    // By value: the caller's path_ entry can move while the walk goes deeper.
    void Walk(HKEY key, std::string name) {
        totals_.Key(name);
        DWORD subKeys = 0, values = 0, maxData = 0;
        if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values, nullptr, &maxData,
                             nullptr, nullptr) != Result::Ok)
            Fail("tamvik: key %s unreadable", name.c_str());
        if (maxData > data_.size()) data_.resize(maxData);
        bench::Candidate candidate;
        for (DWORD i = 0; i < values; ++i) {
            DWORD nameLength = 0, type = 0;
            const DWORD size = ReadData(data_, [&](BYTE* data, DWORD* size) {
                nameLength = static_cast<DWORD>(name_.size());
                return RegEnumValueW(key, i, name_.data(), &nameLength, nullptr, &type, data, size);
            });
            if (!totals_.hashing && candidates_ == nullptr) {
                totals_.Value({}, data_.data(), size);
                continue;
            }
            const std::string valueName = Narrow(std::u16string(name_.data(), nameLength));
            totals_.Value(valueName, data_.data(), size);
            if (bench::PlainName(valueName)) candidate.values.push_back(valueName);
        }
        if (candidates_ != nullptr && !candidate.values.empty() && !path_.empty() &&
            std::all_of(path_.begin(), path_.end(), bench::PlainName)) {
            candidate.path = path_;
            candidates_->push_back(std::move(candidate));
        }
        for (DWORD i = 0; i < subKeys; ++i) {
            DWORD length = static_cast<DWORD>(name_.size());
            if (RegEnumKeyExW(key, i, name_.data(), &length, nullptr, nullptr, nullptr, nullptr) != Result::Ok)
                Fail("tamvik: subkey %u of %s unreadable", i, name.c_str());
            // Opened by the name as enumerated, from the same buffer, as a C caller would.
            path_.push_back(totals_.hashing || candidates_ ? Narrow(std::u16string(name_.data(), length)) : std::string());
            HKEY sub = Open(key, name_.data());
            Walk(sub, path_.back());
            path_.pop_back();
        }
    }

private:
    bench::Totals& totals_;
    std::vector<bench::Candidate>* candidates_;
    std::vector<std::string> path_;
    Room<WCHAR> name_ = Room<WCHAR>(65537);  // room for any name
    Room<BYTE> data_ = Room<BYTE>(1 << 16);
};

bench::Totals WalkAll(const std::string& path) {
    OpenHive hive(path, true);
    bench::Totals totals;
    Walker(totals).Walk(Open(hive.get(), u"ROOT"), {});
    hive.Close();
    return totals;
}

std::vector<bench::Candidate> Candidates(const std::string& path) {
    OpenHive hive(path, true);
    bench::Totals totals;
    std::vector<bench::Candidate> found;
    Walker(totals, &found).Walk(Open(hive.get(), u"ROOT"), {});
    return found;
}

bench::Totals Lookups(const std::string& path, const std::vector<bench::Lookup>& lookups) {
    OpenHive hive(path, true);
    bench::Totals totals;
    Room<BYTE> data(1 << 16);
    std::u16string full;
    for (const bench::Lookup& lookup : lookups) {
        // Forming the wide path is the caller's part of a lookup, so it is timed too.
        full = u"ROOT";
        for (const std::string& part : lookup.path) full += u'\\' + Wide(part);
        HKEY key = Open(hive.get(), full);
        const std::u16string value = Wide(lookup.value);
        const DWORD size = ReadData(data, [&](BYTE* buffer, DWORD* size) {
            DWORD type = 0;
            return RegQueryValueExW(key, value.c_str(), nullptr, &type, buffer, size);
        });
        totals.Key({});
        totals.Value({}, data.data(), size);
        RegCloseKey(key);
    }
    hive.Close();
    return totals;
}

HKEY CreateKey(HKEY parent, const std::string& name) {
    HKEY key = nullptr;
    if (LONG result = RegCreateKeyExW(parent, Wide(name).c_str(), &key); result != Result::Ok)
        Fail("tamvik: can't create %s (result %d)", name.c_str(), result);
    return key;
}

void SetValues(HKEY key, int index, bench::Mix mix) {
    for (int v = 0; v < bench::kValuesPerKey; ++v) {
        const bench::Bytes data = bench::ValueData(index, v, mix);
        if (LONG result = RegSetValueNewW(key, Wide(bench::ValueName(v)).c_str(), 0, bench::kValueType, data.data,
                                          static_cast<DWORD>(data.size));
            result != Result::Ok)
            Fail("tamvik: can't set value %d of key %d (result %d)", v, index, result);
    }
}

void Create(const std::string& path, bench::Mix mix, const std::string& variant) {
    if (!variant.empty()) Fail("tamvik: W3 has no variant %s", variant.c_str());
    OpenHive hive(path, false);
    HKEY top = CreateKey(Open(hive.get(), u"ROOT"), bench::kBenchKey);
    for (int g = 0; g < bench::kGroups; ++g) {
        HKEY group = CreateKey(top, bench::GroupName(g));
        SetValues(group, bench::KeyIndex(g, -1), mix);
        for (int k = 0; k < bench::kLeaves; ++k)
            SetValues(CreateKey(group, bench::LeafName(k)), bench::KeyIndex(g, k), mix);
    }
    hive.Close();
}

void Delete(HKEY parent, const std::string& name) {
    if (LONG result = RegDeleteKeyW(parent, Wide(name).c_str()); result != Result::Ok)
        Fail("tamvik: can't delete %s (result %d)", name.c_str(), result);
}

// Bottom up: a group's leaves, then the group; the bench key last.
void Remove(const std::string& path) {
    OpenHive hive(path, false);
    HKEY root = Open(hive.get(), u"ROOT");
    HKEY top = Open(root, Wide(bench::kBenchKey));
    for (int g = 0; g < bench::kGroups; ++g) {
        HKEY group = Open(top, Wide(bench::GroupName(g)));
        for (int k = 0; k < bench::kLeaves; ++k) Delete(group, bench::LeafName(k));
        Delete(top, bench::GroupName(g));
    }
    Delete(root, bench::kBenchKey);
    hive.Close();
}

std::optional<bench::Totals> ReadBack(const std::string& path) {
    OpenHive hive(path, true);
    HKEY top = nullptr;
    if (RegOpenKeyExW(hive.get(), (u"ROOT\\" + Wide(bench::kBenchKey)).c_str(), 0, 0, &top) != Result::Ok)
        return std::nullopt;
    bench::Totals totals;
    totals.hashing = true;
    Walker(totals).Walk(top, bench::kBenchKey);
    hive.Close();
    return totals;
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Side side{"tamvik", WalkAll, Lookups, Create, Remove, ReadBack, Candidates};
    return bench::Main(argc, argv, side);
}
