// Small sound and damaged hives shared by the damage tests and fuzzers (see Samples.h).
#include "support/Samples.h"

#include <functional>

#include "store/Format.h"
#include "support/HiveBuilder.h"

namespace TamvikTest {

namespace {

namespace NkField = Tamvik::NkField;

TreeValue Value(const std::string& name, std::uint32_t type, std::size_t length) {
    Bytes data(length);
    for (std::size_t i = 0; i < length; ++i) data[i] = static_cast<std::uint8_t>('a' + i % 26);
    if (length >= 2 && (type == 1 || type == 2 || type == 7)) data[length - 1] = data[length - 2] = 0;
    return {name, type, data};
}

TreeKey SampleTree(ListKind kind, std::size_t children) {
    TreeKey root{"ROOT", {Value("inline", 4, 4), Value("cell", 3, 10), Value("text", 1, 14), Value("multi", 7, 20)}};
    root.list = kind;
    for (std::size_t i = 0; i < children; ++i) {
        TreeKey child{"Key" + std::to_string(i), {Value("v", 3, 2 + i)}};
        if (i == 0) child.subkeys.push_back(TreeKey{"Deeper", {Value("w", 1, 6)}});
        root.subkeys.push_back(child);
    }
    return root;
}

// A sample tree with one lie laid over it.
Bytes Lie(const std::function<void(HiveBuilder&)>& lie, ListKind kind = ListKind::Lf) {
    HiveBuilder b;
    b.AddTree(SampleTree(kind, 3));
    lie(b);
    return b.Build();
}

}  // namespace

std::vector<Sample> SoundSamples() {
    std::vector<Sample> samples;
    for (std::uint32_t minor : {3u, 5u}) {
        for (ListKind kind : {ListKind::Lf, ListKind::Lh, ListKind::Li, ListKind::Ri}) {
            HiveBuilder b(minor);
            b.AddTree(SampleTree(kind, 5));
            samples.emplace_back("tree-v" + std::to_string(minor) + "-" + std::to_string(static_cast<int>(kind)), b.Build());
        }
    }
    HiveBuilder big;
    TreeKey root = SampleTree(ListKind::Lh, 2);
    root.values.push_back(Value("big", 3, 40000));
    big.AddTree(root);
    samples.emplace_back("db", big.Build());
    return samples;
}

std::vector<Sample> DamagedSamples() {
    std::vector<Sample> samples = {
        {"self-listed", Lie([](HiveBuilder& b) {
             const std::uint32_t root = b.KeyOffset("");
             b.Patch32(root, NkField::SubKeyListCell, b.AddList("lf", {root, b.KeyOffset("Key0")}));
             b.Patch32(root, NkField::SubKeyCount, 2);
         })},
        {"ri-naming-itself", Lie([](HiveBuilder& b) {
             const std::uint32_t ri = b.AddList("ri", {0});
             b.Patch32(ri, 4, ri);
             b.Patch32(b.KeyOffset(""), NkField::SubKeyListCell, ri);
         }, ListKind::Ri)},
        {"ri-pair", Lie([](HiveBuilder& b) {
             const std::uint32_t first = b.AddList("ri", {0}), second = b.AddList("ri", {first});
             b.Patch32(first, 4, second);
             b.Patch32(b.KeyOffset(""), NkField::SubKeyListCell, first);
         })},
        {"huge-counts", Lie([](HiveBuilder& b) {
             b.Patch32(b.KeyOffset(""), NkField::SubKeyListCell, b.AddList("lf", {b.KeyOffset("Key0")}, {}, 0, 65535));
             b.Patch32(b.KeyOffset(""), NkField::SubKeyCount, 0xFFFFFFFF);
             b.Patch32(b.KeyOffset("Key1"), NkField::ValueCount, 0xFFFFFFFF);
         })},
        {"names-past-cells", Lie([](HiveBuilder& b) {
             b.Patch16(b.KeyOffset("Key0"), NkField::NameLength, 0xFFFF);
             b.Patch32(b.KeyOffset("Key1"), NkField::ValueListCell, b.AddOffsets({b.AddVk({"short", 0x80000002, 1, 3, 0, 4000})}));
             b.Patch32(b.KeyOffset("Key1"), NkField::ValueCount, 1);
         })},
        {"db-at-odds", Lie([](HiveBuilder& b) {
             const std::uint32_t seg = b.AddCell(Bytes(16344, 0x11)), list = b.AddOffsets({seg, seg});
             b.Patch32(b.KeyOffset("Key0"), NkField::ValueListCell,
                       b.AddOffsets({b.AddVk({"many", 20000, b.AddDb(5, list)}), b.AddVk({"few", 40000, b.AddDb(1, list)}),
                                     b.AddVk({"short", 3000, b.AddCell(Bytes(8, 0x33))}),
                                     b.AddVk({"plain", 30000, b.AddCell(Bytes(64, 0xFF))}),
                                     b.AddVk({"inline9", 0x80000009, 0x41424344})}));
             b.Patch32(b.KeyOffset("Key0"), NkField::ValueCount, 5);
         })},
        {"big-data-cell-past-the-file", Lie([](HiveBuilder& b) {
             const std::uint32_t data = b.AddCell(Bytes(8, 0x44));
             b.SetCellSize(data, -0x100000);
             b.Patch32(b.KeyOffset("Key0"), NkField::ValueListCell, b.AddOffsets({b.AddVk({"huge", 20000, data})}));
             b.Patch32(b.KeyOffset("Key0"), NkField::ValueCount, 1);
         })},
        {"owners-at-odds", Lie([](HiveBuilder& b) {
             // An sk that counts no key, its ring leading to a cell that doesn't lead back.
             b.Patch32(b.KeyOffset("Key0"), NkField::SecurityCell, b.AddSk(b.KeyOffset(""), 0, 0));
             b.Patch32(b.KeyOffset("Key1"), NkField::ParentCell, b.KeyOffset("Key0"));
             b.Patch32(b.KeyOffset("Key2"), NkField::ClassCell, b.AddCell(Bytes(8, 0x55)));
             b.Patch16(b.KeyOffset("Key2"), NkField::ClassLength, 100);
             const std::uint32_t segments = b.AddOffsets({b.AddCell(Bytes(16344, 0x66)), b.AddCell(Bytes(8, 0x66))});
             b.Patch32(b.KeyOffset("Key2"), NkField::ValueListCell, b.AddOffsets({b.AddVk({"cut", 20000, b.AddDb(2, segments)})}));
             b.Patch32(b.KeyOffset("Key2"), NkField::ValueCount, 1);
         })},
        {"bins-size-past-the-file", Lie([](HiveBuilder& b) { b.SetBinsSize(0x7FFFF000); })},
    };
    for (std::uint32_t binSize : {0u, 0xFFFFF000u, 1u << 30, 4104u}) {
        samples.emplace_back("bin-size-" + std::to_string(binSize), Lie([&](HiveBuilder& b) {
                                 const std::uint32_t second = b.AddBin();
                                 b.AddFree(64);
                                 b.AddBin();
                                 b.SetBinSize(second, binSize);
                             }));
    }
    HiveBuilder chain;
    std::uint32_t below = chain.AddNk({"leaf"});
    for (int i = 0; i < 300; ++i) below = chain.AddNk({"k", 0x20, 1, chain.AddList("lf", {below})});
    chain.SetRoot(below);
    samples.emplace_back("chain", chain.Build());
    return samples;
}

}  // namespace TamvikTest
