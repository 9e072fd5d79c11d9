// Writes small hives laid out by the test hive builder into the seed folders
// of the two harnesses: sound trees of each list kind and format version, and
// the damaged records the library has to survive (cycles, counts that lie,
// names past their cell, bin chains that lead nowhere).
// Usage: make_seeds WALK_DIR EDIT_DIR
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "support/HiveBuilder.h"

using namespace TamvikTest;

namespace {

TreeValue Value(const std::string& name, std::uint32_t type, std::size_t length, DataForm form = DataForm::Auto) {
    Bytes data(length);
    for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<std::uint8_t>('a' + i % 26);
    if (length >= 2 && (type == 1 || type == 2 || type == 7)) data[length - 1] = data[length - 2] = 0;
    return TreeValue{name, type, data, form, false};
}

TreeKey SampleTree(ListKind kind, std::size_t children) {
    TreeKey root{"ROOT", {Value("inline", 4, 4), Value("cell", 3, 10), Value("text", 1, 14), Value("multi", 7, 20)},
                 {}, kind, 2, false};
    for (std::size_t i = 0; i < children; ++i) {
        TreeKey child{"Key" + std::to_string(i), {Value("v", 3, 2 + i)}, {}, ListKind::Lf, 2, false};
        if (i == 0) child.subkeys.push_back(TreeKey{"Deeper", {Value("w", 1, 6)}, {}, ListKind::Lf, 2, false});
        root.subkeys.push_back(child);
    }
    return root;
}

Bytes Tree(ListKind kind, std::size_t children, std::uint32_t minor = 5) {
    HiveBuilder builder(minor);
    builder.AddTree(SampleTree(kind, children));
    return builder.Build();
}

// Root whose subkey list names the root itself, next to a sound child.
Bytes SelfListed() {
    HiveBuilder builder;
    builder.AddTree(SampleTree(ListKind::Lf, 1));
    const std::uint32_t root = builder.KeyOffset("");
    const std::uint32_t list = builder.AddLf({root, builder.KeyOffset("Key0")}, {"ROOT", "Key0"});
    builder.PatchU32(root, 0x14, 2);
    builder.PatchU32(root, 0x1C, list);
    return builder.Build();
}

// An ri whose only entry is the ri itself.
Bytes SelfIndirect() {
    HiveBuilder builder;
    builder.AddTree(SampleTree(ListKind::Ri, 3));
    const std::uint32_t root = builder.KeyOffset("");
    const std::uint32_t ri = builder.AddRi({0});
    builder.PatchU32(ri, 4, ri);
    builder.PatchU32(root, 0x1C, ri);
    return builder.Build();
}

// Counts of 65535 over small cells: a leaf, the key's counts and a value list.
Bytes HugeCounts() {
    HiveBuilder builder;
    builder.AddTree(SampleTree(ListKind::Lf, 2));
    const std::uint32_t root = builder.KeyOffset("");
    const std::uint32_t leaf = builder.AddListRaw("lf", 65535, Bytes(16, 0));
    builder.PatchU32(root, 0x14, 65535);
    builder.PatchU32(root, 0x1C, leaf);
    builder.PatchU32(builder.KeyOffset("Key1"), 0x24, 65535);
    return builder.Build();
}

// A key name whose NameLength runs past its cell, and a value name likewise.
Bytes LongNames() {
    HiveBuilder builder;
    builder.AddTree(SampleTree(ListKind::Lf, 2));
    builder.PatchU16(builder.KeyOffset("Key0"), 0x48, 0xFFFF);
    const std::uint32_t vk = builder.AddVk(VkFields{"short", false, 0x80000002u, 0x4142, 3, 4000});
    const std::uint32_t list = builder.AddValueList({vk});
    builder.PatchU32(builder.KeyOffset("Key1"), 0x24, 1);
    builder.PatchU32(builder.KeyOffset("Key1"), 0x28, list);
    return builder.Build();
}

// db records whose SegmentCount disagrees with the length, both ways, and a
// data cell shorter than its DataLength.
Bytes BadBigData() {
    HiveBuilder builder;
    TreeKey root = SampleTree(ListKind::Lf, 1);
    root.values.push_back(Value("big", 3, 40000));
    builder.AddTree(root);
    const std::uint32_t first = builder.AddData(Bytes(16344, 0x11));
    const std::uint32_t second = builder.AddData(Bytes(16344, 0x22));
    const std::uint32_t segments = builder.AddSegmentList({first, second});
    const std::uint32_t tooMany = builder.AddDb(5, segments);   // 20000 bytes need 2
    const std::uint32_t tooFew = builder.AddDb(1, segments);    // 40000 bytes need 3
    const std::uint32_t shortCell = builder.AddData(Bytes(8, 0x33));
    const std::uint32_t list = builder.AddValueList({builder.AddVk(VkFields{"many", false, 20000, tooMany, 3, -1}),
                                                     builder.AddVk(VkFields{"few", false, 40000, tooFew, 3, -1}),
                                                     builder.AddVk(VkFields{"short", false, 3000, shortCell, 3, -1}),
                                                     builder.AddVk(VkFields{"inline9", false, 0x80000009u, 0x41424344, 3, -1})});
    const std::uint32_t key = builder.KeyOffset("Key0");
    builder.PatchU32(key, 0x24, 4);
    builder.PatchU32(key, 0x28, list);
    return builder.Build();
}

// Bins whose sizes lead back to the first bin, or past BinsSize.
Bytes BadBinChain(std::uint32_t secondBinSize) {
    HiveBuilder builder;
    builder.AddTree(SampleTree(ListKind::Lf, 2));
    const std::uint32_t second = builder.AddBin(4096);
    builder.AddCell(Bytes(4, 0), false, 64);
    builder.AddBin(4096);
    builder.SetBinSize(second, secondBinSize);
    return builder.Build();
}

// A chain of keys, each the only child of the one above.
Bytes Chain(std::size_t depth) {
    TreeKey root{"ROOT", {}, {}, ListKind::Lf, 2, false};
    TreeKey* at = &root;
    for (std::size_t i = 0; i < depth; ++i) {
        at->subkeys.push_back(TreeKey{"k" + std::to_string(i), {}, {}, ListKind::Lh, 2, false});
        at = &at->subkeys.back();
    }
    HiveBuilder builder;
    builder.AddTree(root);
    return builder.Build();
}

Bytes ManyValues() {
    TreeKey root{"ROOT", {}, {}, ListKind::Lf, 2, false};
    for (int i = 0; i < 60; ++i) root.values.push_back(Value("value" + std::to_string(i), i % 12, static_cast<std::size_t>(i)));
    HiveBuilder builder;
    builder.AddTree(root);
    return builder.Build();
}

// Edit scripts put ahead of each hive for the edit harness: a count byte and
// four bytes per step (see fuzz_edit.cpp).
const std::vector<Bytes>& Scripts() {
    static const std::vector<Bytes> scripts = {
        {0x06, 0, 0, 1, 0, 1, 0, 5, 0x48, 2, 1, 0, 0x10, 3, 0, 0, 0, 4, 1, 0, 0, 5, 0, 3, 0x60},
        {0x05, 1, 1, 15, 0x71, 6, 1, 1, 0, 3, 2, 1, 0, 4, 2, 0, 0, 8, 0, 10, 0},
        {0x14, 0, 0, 2, 0, 1, 1, 13, 0x78, 7, 0, 0, 0},
    };
    return scripts;
}

bool WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s WALK_DIR EDIT_DIR\n", argv[0]);
        return 2;
    }
    const std::vector<std::pair<std::string, Bytes>> hives = {
        {"lf", Tree(ListKind::Lf, 3)},         {"lh", Tree(ListKind::Lh, 4)},
        {"li", Tree(ListKind::Li, 3)},         {"ri", Tree(ListKind::Ri, 5)},
        {"minor3", Tree(ListKind::Lf, 2, 3)},  {"minor1", Tree(ListKind::Li, 2, 1)},
        {"self-listed", SelfListed()},         {"self-ri", SelfIndirect()},
        {"huge-counts", HugeCounts()},         {"long-names", LongNames()},
        {"big-data", BadBigData()},            {"bin-size-zero", BadBinChain(0)},
        {"bin-size-back", BadBinChain(0xFFFFF000u)}, {"bin-size-past", BadBinChain(1u << 30)},
        {"chain", Chain(40)},                  {"many-values", ManyValues()},
    };
    bool ok = true;
    for (const auto& [name, bytes] : hives) {
        ok &= WriteFile(std::string(argv[1]) + "/builder-" + name, bytes);
        for (std::size_t i = 0; i < Scripts().size(); ++i) {
            Bytes withScript = Scripts()[i];
            withScript.insert(withScript.end(), bytes.begin(), bytes.end());
            ok &= WriteFile(std::string(argv[2]) + "/builder-" + name + "-" + std::to_string(i), withScript);
        }
    }
    return ok ? 0 : 1;
}
