// Guards editing as a whole: thousands of random creations, rewrites and
// deletions go through the public functions into a hive and into an in-memory
// model at once. Every answer must be the model's; after each batch our walk
// must list the model, and the closed file must pass the tool's structure
// check and list the same in hivex and libregf. Runs on built hives (versions
// 1.3 and 1.5) and below a new key of each clean real hive, which must
// otherwise stay as it was. TAMVIK_MODEL_SEED and TAMVIK_MODEL_OPS replay or
// lengthen a run.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

#include "store/Format.h"
#include "support/Device.h"
#include "support/Fixture.h"
#include "support/Listing.h"
#include "support/ModelTree.h"
#include "support/Peers.h"

namespace {

using namespace RegAPI;
using namespace TamvikTest;

std::uint64_t Env(const char* name, std::uint64_t fallback) {
    const char* text = std::getenv(name);
    return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 0) : fallback;
}

// Names, types and sizes concentrated where the library changes form: inline
// up to 4 bytes, cells around 12/13 bytes, the db line at 16344/16345, and
// several segments.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : engine_(seed) {}
    std::uint64_t Below(std::uint64_t n) { return std::uniform_int_distribution<std::uint64_t>(0, n - 1)(engine_); }
    bool Chance(int percent) { return static_cast<int>(Below(100)) < percent; }
    template <typename T>
    T& Pick(std::vector<T>& items) { return items[Below(items.size())]; }

    std::string Name() {
        static const std::string chars = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_- ";
        const int roll = static_cast<int>(Below(100));
        // Short names collide often, which exercises the duplicate tests.
        const std::size_t length = roll < 30 ? 1 + Below(2) : roll < 97 ? 3 + Below(10) : 100 + Below(200);
        std::string name;
        for (std::size_t i = 0; i < length; ++i) name += chars[Below(chars.size())];
        return name;
    }
    std::string CaseVariant(std::string name) {
        for (char& c : name)
            if (std::isalpha(static_cast<unsigned char>(c)) && Chance(40)) c = static_cast<char>(c ^ 0x20);
        return name;
    }
    std::uint32_t Type() {
        static const std::uint32_t types[] = {3, 3, 3, 3, 1, 1, 7, 0, 4, 4, 11, 5};
        return Chance(12) ? static_cast<std::uint32_t>(engine_()) : types[Below(std::size(types))];
    }
    std::size_t Size() {
        const int roll = static_cast<int>(Below(100));
        static const std::size_t large[] = {32688, 32689, 40000, 49032, 49033};
        return roll < 33 ? Below(9) : roll < 42 ? 4 + Below(2) : roll < 50 ? 12 + Below(2) : roll < 58 ? 16340 + Below(11)
             : roll < 64 ? 16344 + Below(2) : roll < 67 ? large[Below(5)] : roll < 85 ? 9 + Below(92) : 100 + Below(4000);
    }
    Bytes Data(std::size_t size) {
        Bytes data(size);
        for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(engine_());
        return data;
    }

private:
    std::mt19937_64 engine_;
};

// A random tree for the builder: every list kind, narrow and wide names, every
// data form; sibling names distinct without regard to case and in leaf order.
TreeKey RandomTree(Dice& dice, int depth) {
    static const ListKind kinds[] = {ListKind::Lf, ListKind::Lh, ListKind::Li, ListKind::Ri};
    TreeKey key;
    key.list = kinds[dice.Below(4)];
    key.riLeafSize = 1 + static_cast<std::uint32_t>(dice.Below(3));
    for (std::size_t i = dice.Below(5); i > 0; --i) {
        TreeValue value{dice.Name(), dice.Type(), dice.Data(dice.Size())};
        value.wideName = dice.Chance(20);
        // A short value may also stand in a cell of its own, as other writers leave it.
        if (!value.data.empty() && value.data.size() <= 4 && dice.Chance(30)) value.form = DataForm::Cell;
        if (std::none_of(key.values.begin(), key.values.end(),
                         [&](const TreeValue& v) { return ModelTree::SameName(v.name, value.name); }))
            key.values.push_back(value);
    }
    for (std::size_t i = depth >= 3 ? 0 : dice.Below(depth == 0 ? 6 : 4); i > 0; --i) {
        TreeKey child = RandomTree(dice, depth + 1);
        child.name = dice.Name();
        child.wideName = dice.Chance(20);
        if (std::none_of(key.subkeys.begin(), key.subkeys.end(),
                         [&](const TreeKey& k) { return ModelTree::SameName(k.name, child.name); }))
            key.subkeys.push_back(std::move(child));
    }
    std::sort(key.subkeys.begin(), key.subkeys.end(),
              [](const TreeKey& a, const TreeKey& b) { return ModelTree::LeafOrder(a.name, b.name) < 0; });
    return key;
}

void FillModel(const TreeKey& tree, ModelKey& key) {
    for (const TreeValue& value : tree.values) key.values.push_back({value.name, value.type, value.data});
    for (const TreeKey& subtree : tree.subkeys) {
        auto child = std::make_unique<ModelKey>();
        child->name = subtree.name;
        child->parent = &key;
        FillModel(subtree, *child);
        key.subkeys.push_back(std::move(child));
    }
    key.listRefusesInserts = !key.subkeys.empty() && (tree.list == ListKind::Li || tree.list == ListKind::Ri);
}

// One run: a hive file, its model, and random operations on both.
class ModelRun {
public:
    ModelRun(const std::string& label, std::string file, ModelTree& model, int keyLimit)
        : label_(label), file_(std::move(file)), model_(model), dice_(Env("TAMVIK_MODEL_SEED", 20261123) ^
                                                                      std::hash<std::string>{}(label)),
          keyLimit_(keyLimit) {}
    ~ModelRun() { Close(); }

    bool failed = false;
    std::vector<std::string> hivexBefore, libregfBefore, libregfComplaints;

    void Open() {
        if (OpenTestHive(file_, &hive_) != Result::Ok) Fail("the hive doesn't open");
    }
    void Close() {
        if (hive_ != nullptr) CloseTestHive(&hive_);
        hive_ = nullptr;
    }
    HKEY Hive() const { return hive_; }

    void Operate(int ops, int batch) {
        for (int i = 1; i <= ops && !failed; ++i) {
            ++opIndex_;
            Step();
            if (i % batch == 0 || i == ops) CheckOurs(), CheckFile();
        }
    }

    // Deletes every key below the model's top key, leaves first, and the top key's values.
    void Clear() {
        ModelKey& top = model_.Root();
        while (!top.subkeys.empty() && !failed) DeleteTree(*top.subkeys.front());
        while (!top.values.empty() && !failed) {
            const std::string name = top.values.back().name;
            Expect("clear value " + name, model_.DeleteValue(top, name), RegDeleteValueW(OpenKey(top), Utf16(name).c_str()));
        }
    }

    void CheckOurs() {
        if (failed) return;
        const Listing ours = ListKey(hive_, model_.HivePath(model_.Root()), model_.ListingPath(model_.Root()));
        std::string report;
        for (const std::string& problem : ours.problems) report += "  walk: " + problem + "\n";
        report += CompareListings(model_.Listing(), ours.lines, "ours");
        for (ModelKey* key : model_.Keys()) {
            const auto found = ours.counts.find(model_.ListingPath(*key));
            const KeyCounts c = found == ours.counts.end() ? KeyCounts{} : found->second;
            // The maxima of names hold twice a length in 16 bits: longer names can't show.
            auto held = [](const std::string& name) { return std::min<std::size_t>(name.size(), 0x7FFF); };
            bool low = c.subKeys != key->subkeys.size() || c.values != key->values.size();
            for (const auto& child : key->subkeys) low |= c.maxSubKeyLength < held(child->name);
            for (const ModelValue& v : key->values)
                low |= c.maxValueNameLength < held(v.name) || c.maxValueLength < v.data.size();
            if (low) report += "  counts of " + model_.ListingPath(*key) + " don't cover the model\n";
        }
        if (!report.empty()) Fail("our listing differs from the model:\n" + report);
    }

    // Closes the hive; the tool's structure check and both peers read the file.
    void CheckFile() {
        if (failed) return;
        Close();
        const auto [status, output] = Capture(std::string(TAMVIK_TOOL) + " check -q " + Quoted(file_) + " 2>&1");
        if (status != 0) return Fail("tamvik check finds the file unsound:\n" + output);
        const std::string top = model_.ListingPath(model_.Root());
        for (const char* reader : {"hivex", "libregf"}) {
            const PeerListing peer = RunPeer(reader, file_);
            const bool hivex = std::string(reader) == "hivex";
            std::string report = peer.status != 0 ? "  exit status " + std::to_string(peer.status) + "\n" : "";
            for (const std::string& error : peer.errors) {
                const auto& known = hivex ? std::vector<std::string>{} : libregfComplaints;
                if (std::find(known.begin(), known.end(), error) == known.end()) report += "  complaint: " + error + "\n";
            }
            report += CompareListings(model_.Listing(), FilterSubtree(peer.lines, top, true), reader,
                                      [&](const std::string& want, const std::string& got) {
                                          return KnownPeerQuirk(reader, want, got, model_.MinorVersion());
                                      });
            const auto& before = hivex ? hivexBefore : libregfBefore;
            if (!before.empty()) report += CompareListings(before, FilterSubtree(peer.lines, top, false), reader);
            if (!report.empty()) return Fail(std::string(reader) + " disagrees with the model:\n" + report);
        }
        Open();
    }

    void Fail(const std::string& what) {
        if (failed) return;
        failed = true;
        Close();
        std::string recent;
        for (const std::string& entry : history_) recent += "    " + entry + "\n";
        ADD_FAILURE() << label_ << " (TAMVIK_MODEL_SEED=" << Env("TAMVIK_MODEL_SEED", 20261123) << "), operation "
                      << opIndex_ << ": " << what << "  last operations:\n" << recent;
    }

private:
    bool Expect(const std::string& what, LONG expected, LONG actual) {
        history_.push_back("[" + std::to_string(opIndex_) + "] " + what.substr(0, 150) + " -> " + std::to_string(actual));
        if (history_.size() > 12) history_.pop_front();
        const bool agree = expected == ModelTree::kAnyRefusal ? actual != Result::Ok : actual == expected;
        if (!agree) Fail(what + ": result " + std::to_string(actual) + ", the model expects " + std::to_string(expected));
        return agree;
    }

    // The key's handle, opened afresh by its whole path, in a random case.
    HKEY OpenKey(const ModelKey& key) {
        HKEY handle = nullptr;
        const std::u16string path = Utf16(dice_.CaseVariant(Utf8(model_.HivePath(key))));
        if (RegOpenKeyExW(hive_, (path.empty() ? path : u"ROOT\\" + path).c_str(), 0, 0, &handle) != Result::Ok)
            Fail("can't open " + model_.ListingPath(key));
        return handle;
    }

    ModelKey& AnyKey() { return *dice_.Pick(keys_); }
    ModelKey& KeyWithValues() {
        std::vector<ModelKey*> with;
        for (ModelKey* key : keys_)
            if (!key->values.empty()) with.push_back(key);
        return with.empty() || dice_.Chance(10) ? AnyKey() : *dice_.Pick(with);
    }
    std::string Existing(std::vector<ModelValue>& values, int percent) {
        return values.empty() || !dice_.Chance(percent) ? dice_.Name() : dice_.CaseVariant(dice_.Pick(values).name);
    }

    void Step() {
        keys_ = model_.Keys();
        const int roll = static_cast<int>(dice_.Below(1000));
        if (failed || keys_.empty()) return;
        if (roll < 5) return OverlongName();
        if (roll < 145) return static_cast<int>(keys_.size()) >= keyLimit_ ? DeleteKey() : CreateKey();
        if (roll < 365) return NewValue(AnyKey(), nullptr);
        if (roll < 655) return SetValue();
        if (roll < 775) return DeleteValue();
        if (roll < 960 || keys_.size() < 2) return DeleteKey();
        DeleteTree(*keys_[1 + dice_.Below(keys_.size() - 1)]);
    }

    void CreateKey() {
        ModelKey& parent = AnyKey();
        std::string name = dice_.Name();
        if (!parent.subkeys.empty() && dice_.Chance(20)) name = dice_.CaseVariant(dice_.Pick(parent.subkeys)->name);
        HKEY created = nullptr;
        const LONG expected = model_.CreateKey(parent, name);
        if (!Expect("create key " + model_.ListingPath(parent) + " + " + name, expected,
                    RegCreateKeyExW(OpenKey(parent), Utf16(name).c_str(), &created)) || expected != 0)
            return;
        // The new key's own handle serves at once: for a subkey, and for a value.
        ModelKey& child = *ModelTree::FindSubkey(parent, name);
        if (dice_.Chance(15)) {
            const std::string grandchild = dice_.Name();
            HKEY below = nullptr;
            if (Expect("create below the new key " + grandchild, model_.CreateKey(child, grandchild),
                       RegCreateKeyExW(created, Utf16(grandchild).c_str(), &below)) && dice_.Chance(30))
                Expect("delete it again", model_.DeleteKey(child, grandchild),
                       RegDeleteKeyW(created, Utf16(grandchild).c_str()));
        }
        if (dice_.Chance(25)) NewValue(child, created);
    }

    void NewValue(ModelKey& key, HKEY handle) {
        std::string name = Existing(key.values, 15);
        if (dice_.Chance(1)) name.clear();
        const std::uint32_t type = dice_.Type();
        const Bytes data = dice_.Data(dice_.Size());
        const std::uint8_t none = 0;
        Expect("new value " + model_.ListingPath(key) + " : " + name + ", " + std::to_string(data.size()) + " bytes",
               model_.NewValue(key, name, type, data),
               RegSetValueNewW(handle != nullptr ? handle : OpenKey(key), Utf16(name).c_str(), 0, type,
                               data.empty() ? &none : data.data(), static_cast<DWORD>(data.size())));
    }

    void SetValue() {
        ModelKey* key = &KeyWithValues();
        ModelValue* value = key->values.empty() || !dice_.Chance(88) ? nullptr : &dice_.Pick(key->values);
        // Values near or behind the db line are rare, so they are sought out.
        std::vector<std::pair<ModelKey*, ModelValue*>> large;
        for (ModelKey* k : keys_)
            for (ModelValue& v : k->values)
                if (v.data.size() >= 16000) large.emplace_back(k, &v);
        if (!large.empty() && dice_.Chance(25)) std::tie(key, value) = dice_.Pick(large);
        std::string name = dice_.Name();
        std::uint32_t type = dice_.Type();
        std::size_t size = dice_.Size();
        if (value != nullptr) {
            name = dice_.CaseVariant(value->name);
            if (dice_.Chance(90)) type = value->type;
            const std::size_t old = value->data.size();
            const int roll = static_cast<int>(dice_.Below(100));
            // Lengths at the old one: rewrites in place, and the edge of growth.
            if (((type == 4 || type == 5 || type == 11) && roll < 75) || roll < 15) size = old;
            else if (roll < 30) size = std::max<std::size_t>(old + dice_.Below(5), 2) - 2;
            else if (roll < 40) size = 16343 + dice_.Below(3);
            else if (roll < 48 && old > 0) size = old - std::min<std::size_t>(old - 1, dice_.Chance(50) ? dice_.Below(20) : 16344);
        }
        const Bytes data = dice_.Data(size);
        const std::uint8_t none = 0;
        Expect("set value " + model_.ListingPath(*key) + " : " + name + ", " + std::to_string(size) + " bytes",
               model_.SetValue(*key, name, type, data),
               RegSetValueExW(OpenKey(*key), Utf16(name).c_str(), 0, type, data.empty() ? &none : data.data(),
                              static_cast<DWORD>(size)));
    }

    void DeleteValue() {
        ModelKey& key = KeyWithValues();
        const std::string name = Existing(key.values, 85);
        Expect("delete value " + model_.ListingPath(key) + " : " + name, model_.DeleteValue(key, name),
               RegDeleteValueW(OpenKey(key), Utf16(name).c_str()));
    }

    // A leaf mostly, sometimes a key with subkeys or a missing name; through
    // the parent's handle or an ancestor's, with a path of several components.
    void DeleteKey() {
        if (keys_.size() < 2) return CreateKey();
        std::vector<ModelKey*> leaves;
        for (std::size_t i = 1; i < keys_.size(); ++i)
            if (keys_[i]->subkeys.empty()) leaves.push_back(keys_[i]);
        ModelKey* target = dice_.Chance(80) && !leaves.empty() ? dice_.Pick(leaves) : keys_[1 + dice_.Below(keys_.size() - 1)];
        DeleteBelow(*target->parent, dice_.Chance(8) ? dice_.Name() : dice_.CaseVariant(target->name));
    }

    void DeleteBelow(ModelKey& parent, const std::string& name) {
        const ModelKey* from = &parent;
        std::string path = name;
        for (; from->parent != nullptr && dice_.Chance(30); from = from->parent) path = dice_.CaseVariant(from->name) + "\\" + path;
        if (dice_.Chance(10)) path = "\\" + path;
        Expect("delete key " + model_.ListingPath(*from) + " : " + path, model_.DeleteKey(parent, name),
               RegDeleteKeyW(OpenKey(*from), Utf16(path).c_str()));
    }

    void DeleteTree(ModelKey& key) {
        while (!key.subkeys.empty() && !failed) DeleteTree(*key.subkeys.back());
        if (!failed && key.parent != nullptr) DeleteBelow(*key.parent, dice_.CaseVariant(key.name));
    }

    // Names at the longest a record holds, and past it: refused, changing nothing.
    void OverlongName() {
        ModelKey& key = AnyKey();
        const std::string name(ModelTree::kMaxNameBytes + dice_.Below(3), 'x');
        const std::uint8_t data[] = {1, 2, 3};
        HKEY created = nullptr;
        if (dice_.Chance(50)) {
            Expect("create an overlong key", model_.CreateKey(key, name), RegCreateKeyExW(OpenKey(key), Utf16(name).c_str(), &created));
        } else {
            Expect("new overlong value", model_.NewValue(key, name, 3, Bytes(data, data + 3)),
                   RegSetValueNewW(OpenKey(key), Utf16(name).c_str(), 0, 3, data, 3));
        }
    }

    std::string label_, file_;
    ModelTree& model_;
    Dice dice_;
    int keyLimit_;
    HKEY hive_ = nullptr;
    int opIndex_ = 0;
    std::vector<ModelKey*> keys_;
    std::deque<std::string> history_;
};

int Ops() { return static_cast<int>(Env("TAMVIK_MODEL_OPS", 1500)); }

class EditModel : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    }
};

TEST(EditModelBuilt, VersionsThreeAndFive) {
    if (!PeersMissing().empty()) GTEST_SKIP() << PeersMissing();
    for (std::uint32_t minor : {3u, 5u}) {
        Dice dice(Env("TAMVIK_MODEL_SEED", 20261123) + minor);
        TreeKey tree = RandomTree(dice, 0);
        tree.name = "ModelRoot";  // libregf refuses a root key without a name
        HiveBuilder builder(minor);
        builder.AddTree(tree);
        TempFile file(builder.Build());
        ModelTree model(minor, "\\");
        FillModel(tree, model.Root());
        ModelRun run("built hive v1." + std::to_string(minor), file.Path(), model, 120);
        run.CheckFile();  // the untouched layout agrees with the model
        run.CheckOurs();
        run.Operate(Ops(), 250);
        run.Clear();
        run.CheckOurs();
        run.CheckFile();
    }
}

TEST_P(EditModel, RandomOperationsBelowANewKeyOfARealHive) {
    SKIP_WITHOUT_SHARED_HIVES();
    TempFile file = TempFile::CopyOf(SharedHives() + "/clean/" + GetParam());
    ModelTree model(Image(file.Read()).Minor(), "\\TamvikModel");
    ModelRun run(GetParam(), file.Path(), model, 50);
    for (const char* reader : {"hivex", "libregf"}) {
        const PeerListing peer = RunPeer(reader, file.Path());
        ASSERT_EQ(peer.status, 0) << reader << " can't list the original";
        (std::string(reader) == "hivex" ? run.hivexBefore : run.libregfBefore) = peer.lines;
        if (std::string(reader) == "libregf") run.libregfComplaints = peer.errors;
    }
    run.Open();
    const std::vector<std::string> before = ListKey(run.Hive()).lines;
    HKEY root = nullptr, work = nullptr;
    ASSERT_EQ(RegOpenKeyExW(run.Hive(), u"", 0, 0, &root), Result::Ok);
    ASSERT_EQ(RegCreateKeyExW(root, u"TamvikModel", &work), Result::Ok);
    run.Operate(std::max(20, Ops() / 12), 60);
    run.Clear();
    if (run.failed) return;
    // Without its work key the hive lists as it did before.
    ASSERT_EQ(RegOpenKeyExW(run.Hive(), u"", 0, 0, &root), Result::Ok);
    ASSERT_EQ(RegDeleteKeyW(root, u"TamvikModel"), Result::Ok);
    EXPECT_EQ(CompareListings(before, ListKey(run.Hive()).lines, "ours after"), "");
    run.Close();
    EXPECT_EQ(CompareListings(run.hivexBefore, RunPeer("hivex", file.Path()).lines, "hivex after"), "");
}

INSTANTIATE_TEST_SUITE_P(Clean, EditModel, ::testing::ValuesIn(SharedHiveNames("clean")),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string id = info.param.empty() ? "NoSharedHives" : info.param;
                             for (char& c : id) c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return id;
                         });

// Found by the model runs: data in a cell of 8 bytes that grows into a new
// cell (or a db) released the old cell with a header read before the new
// cell was carved from the free cell right behind it, so the new cell was
// marked free again. The hive: a root whose one value sits in the last
// allocated cell of the first bin.
TEST(EditModelFound, GrowingOutOfAnEightByteCell) {
    for (const auto& [minor, length] : {std::pair{3u, 6u}, {5u, 16345u}, {3u, 4u}}) {
        HiveBuilder b(minor);
        const std::uint32_t vk = b.AddVk({"v", 3, 0});
        const std::uint32_t list = b.AddOffsets({vk});
        b.SetRoot(b.AddNk({"R", 0x2C, 0, 0xFFFFFFFF, 1, list}));
        b.Patch32(vk, Tamvik::VkField::DataCell, b.AddCell({0x11, 0x22, 0x33}));
        TestHive test(b);
        Bytes data(length);
        for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<std::uint8_t>(i * 13 + 1);
        const Bytes other(40, 0xEE);
        EXPECT_EQ(RegSetValueExW(test.Key(), u"v", 0, 3, data.data(), length), Result::Ok);
        EXPECT_EQ(RegSetValueNewW(test.Key(), u"w", 0, 3, other.data(), 40), Result::Ok);
        Bytes read(length + 8);
        DWORD size = static_cast<DWORD>(read.size());
        EXPECT_EQ(RegQueryValueExW(test.Key(), u"v", nullptr, nullptr, read.data(), &size), Result::Ok) << length;
        read.resize(size);
        EXPECT_EQ(read, data) << "v1." << minor << ", " << length << " bytes";
    }
}

}  // namespace
