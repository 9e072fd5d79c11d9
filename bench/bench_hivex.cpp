// hivex's side of the benchmark: the workloads of Workload.h through hivex's C API.
#include <hivex.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Workload.h"

using bench::Fail;

namespace {

static_assert(hive_t_REG_BINARY == bench::kValueType);

// hivex hands out malloc'd names, data and lists that the caller frees.
struct Free {
    void operator()(void* pointer) const { std::free(pointer); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

class OpenHive {
public:
    OpenHive(const std::string& path, int flags) : path_(path), handle_(hivex_open(path.c_str(), flags)) {
        if (handle_ == nullptr) Fail("hivex: can't open %s: %s", path.c_str(), std::strerror(errno));
    }
    OpenHive(const OpenHive&) = delete;
    OpenHive& operator=(const OpenHive&) = delete;
    ~OpenHive() {
        if (handle_ != nullptr) hivex_close(handle_);
    }
    hive_h* get() const { return handle_; }
    void Commit() {
        if (hivex_commit(handle_, nullptr, 0) != 0) Fail("hivex: commit of %s: %s", path_.c_str(), std::strerror(errno));
    }
    void Close() {
        const int result = hivex_close(handle_);
        handle_ = nullptr;
        if (result != 0) Fail("hivex: closing %s: %s", path_.c_str(), std::strerror(errno));
    }

private:
    std::string path_;
    hive_h* handle_;
};

hive_node_h Child(hive_h* h, hive_node_h parent, const std::string& name) {
    const hive_node_h child = hivex_node_get_child(h, parent, name.c_str());
    if (child == 0) Fail("hivex: no key %s", name.c_str());
    return child;
}

void Walk(hive_h* h, hive_node_h node, const char* name, bench::Totals& totals) {
    totals.Key(name);
    Owned<hive_value_h> values(hivex_node_values(h, node));
    if (values == nullptr) Fail("hivex: values of %s unreadable", name);
    for (const hive_value_h* value = values.get(); *value != 0; ++value) {
        Owned<char> key(hivex_value_key(h, *value));
        hive_type type;
        std::size_t size = 0;
        Owned<char> data(hivex_value_value(h, *value, &type, &size));
        if (key == nullptr || (data == nullptr && size != 0)) Fail("hivex: a value of %s unreadable", name);
        totals.Value(key.get(), data.get(), size);
    }
    Owned<hive_node_h> children(hivex_node_children(h, node));
    if (children == nullptr) Fail("hivex: subkeys of %s unreadable", name);
    for (const hive_node_h* child = children.get(); *child != 0; ++child) {
        Owned<char> childName(hivex_node_name(h, *child));
        if (childName == nullptr) Fail("hivex: a subkey of %s unreadable", name);
        Walk(h, *child, childName.get(), totals);
    }
}

bench::Totals WalkAll(const std::string& path) {
    OpenHive hive(path, 0);
    bench::Totals totals;
    Walk(hive.get(), hivex_root(hive.get()), "", totals);
    hive.Close();
    return totals;
}

bench::Totals Lookups(const std::string& path, const std::vector<bench::Lookup>& lookups) {
    OpenHive hive(path, 0);
    hive_h* h = hive.get();
    bench::Totals totals;
    for (const bench::Lookup& lookup : lookups) {
        hive_node_h node = hivex_root(h);
        for (const std::string& part : lookup.path) node = Child(h, node, part);
        const hive_value_h value = hivex_node_get_value(h, node, lookup.value.c_str());
        if (value == 0) Fail("hivex: no value %s", lookup.value.c_str());
        hive_type type;
        std::size_t size = 0;
        Owned<char> data(hivex_value_value(h, value, &type, &size));
        if (data == nullptr && size != 0) Fail("hivex: value %s unreadable", lookup.value.c_str());
        totals.Key({});
        totals.Value({}, data.get(), size);
    }
    hive.Close();
    return totals;
}

// hivex_node_set_value adds one value by reading the key's values and writing
// them all again with the new one, so five calls write 1+2+3+4+5 values;
// hivex_node_set_values writes the five once. The batch is the faster one
// (measured on W3: 1.5 s of CPU against 4.2 s, and 185 MiB peak against
// 533 MiB), so it is the baseline: we compare against hivex at its best. The
// variant "set_value" times the one-call-per-value way, our own granularity.
void SetValues(hive_h* h, hive_node_h node, int index, bench::Mix mix, bool oneByOne) {
    hive_set_value values[bench::kValuesPerKey];
    for (int v = 0; v < bench::kValuesPerKey; ++v) {
        const bench::Bytes data = bench::ValueData(index, v, mix);
        // hivex only reads through these pointers.
        values[v] = {const_cast<char*>(bench::ValueName(v).c_str()), hive_t_REG_BINARY, data.size,
                     reinterpret_cast<char*>(const_cast<std::uint8_t*>(data.data))};
    }
    if (!oneByOne) {
        if (hivex_node_set_values(h, node, bench::kValuesPerKey, values, 0) != 0)
            Fail("hivex: can't set the values of key %d: %s", index, std::strerror(errno));
        return;
    }
    for (const hive_set_value& value : values)
        if (hivex_node_set_value(h, node, &value, 0) != 0)
            Fail("hivex: can't set %s of key %d: %s", value.key, index, std::strerror(errno));
}

hive_node_h AddChild(hive_h* h, hive_node_h parent, const std::string& name) {
    const hive_node_h child = hivex_node_add_child(h, parent, name.c_str());
    if (child == 0) Fail("hivex: can't create %s: %s", name.c_str(), std::strerror(errno));
    return child;
}

void Create(const std::string& path, bench::Mix mix, const std::string& variant) {
    if (!variant.empty() && variant != "set_value" && variant != "set_values")
        Fail("hivex: W3 has no variant %s", variant.c_str());
    const bool oneByOne = variant == "set_value";
    OpenHive hive(path, HIVEX_OPEN_WRITE);
    hive_h* h = hive.get();
    const hive_node_h top = AddChild(h, hivex_root(h), bench::kBenchKey);
    for (int g = 0; g < bench::kGroups; ++g) {
        const hive_node_h group = AddChild(h, top, bench::GroupName(g));
        SetValues(h, group, bench::KeyIndex(g, -1), mix, oneByOne);
        for (int k = 0; k < bench::kLeaves; ++k)
            SetValues(h, AddChild(h, group, bench::LeafName(k)), bench::KeyIndex(g, k), mix, oneByOne);
    }
    hive.Commit();
    hive.Close();
}

void Delete(hive_h* h, hive_node_h node) {
    if (hivex_node_delete_child(h, node) != 0) Fail("hivex: delete failed: %s", std::strerror(errno));
}

// Bottom up as on Tamvik's side, though hivex would take a whole subtree at once.
void Remove(const std::string& path) {
    OpenHive hive(path, HIVEX_OPEN_WRITE);
    hive_h* h = hive.get();
    const hive_node_h top = Child(h, hivex_root(h), bench::kBenchKey);
    for (int g = 0; g < bench::kGroups; ++g) {
        const hive_node_h group = Child(h, top, bench::GroupName(g));
        for (int k = 0; k < bench::kLeaves; ++k) Delete(h, Child(h, group, bench::LeafName(k)));
        Delete(h, group);
    }
    Delete(h, top);
    hive.Commit();
    hive.Close();
}

std::optional<bench::Totals> ReadBack(const std::string& path) {
    OpenHive hive(path, 0);
    const hive_node_h top = hivex_node_get_child(hive.get(), hivex_root(hive.get()), bench::kBenchKey);
    if (top == 0) return std::nullopt;
    bench::Totals totals;
    totals.hashing = true;
    Walk(hive.get(), top, bench::kBenchKey, totals);
    hive.Close();
    return totals;
}

}  // namespace

int main(int argc, char** argv) {
    const bench::Side side{"hivex", WalkAll, Lookups, Create, Remove, ReadBack, nullptr};
    return bench::Main(argc, argv, side);
}
