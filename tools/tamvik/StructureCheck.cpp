#include "StructureCheck.h"

#include <map>
#include <set>

#include "HiveFile.h"
#include "store/ByteOrder.h"

namespace TamvikTool {

namespace {

using Tamvik::Finding;
using Tamvik::FindingKind;
using Tamvik::kSegmentSize;
constexpr std::uint32_t kNoCellOffset = Tamvik::kNoCell;
using Tamvik::LoadU16;
using Tamvik::LoadU32;
namespace NkField = Tamvik::NkField;
namespace VkField = Tamvik::VkField;
namespace SkField = Tamvik::SkField;
constexpr std::uint32_t kInline = Tamvik::kInlineData;

// One pass over the tree. References are followed only into allocated
// cells, and every key is entered once, so damaged hives can't loop.
class Checker {
public:
    explicit Checker(const Tamvik::HiveScan& file) : file_(file) {}

    StructureReport Run() {
        const std::uint32_t root = file_.Base().rootCell;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> stack;  // (key, parent)
        std::uint32_t rootSize = 0;
        if (file_.Payload(root, &rootSize) != nullptr) {
            referenced_.insert(root);
            stack.push_back({root, kNoCellOffset});
        } else {
            report_.findings.push_back(Finding::Of(FindingKind::Reference, Tamvik::BaseBlockField::RootCell,
                                                  "base block: root cell " + Hex(root) + " names no allocated cell"));
        }
        while (!stack.empty()) {
            auto [key, parent] = stack.back();
            stack.pop_back();
            CheckKey(key, parent, &stack);
        }
        CheckSecurity();
        CheckLeaks();
        return std::move(report_);
    }

private:
    using Stack = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

    void Problem(std::uint32_t cell, const std::string& text, bool warning = false,
                 FindingKind kind = FindingKind::Reference) {
        report_.findings.push_back(Finding::Of(kind, std::uint64_t{cell} + Tamvik::kBaseBlockSize, text, warning));
    }

    // The payload of an allocated cell that a reference names, or null with a
    // problem told against the referring cell. Only keys' security cells are
    // shared by design; any other cell named twice is cross-linked, and an
    // edit through one owner would free or rewrite it under the other.
    const std::uint8_t* Cell(std::uint32_t offset, const std::string& what, std::uint32_t from,
                             std::uint32_t* size = nullptr, bool shared = false) {
        std::uint32_t length = 0;
        const std::uint8_t* p = offset == kNoCellOffset || offset % 8 != 0 ? nullptr : file_.Payload(offset, &length);
        if (p == nullptr) {
            std::string why = file_.CellSizeAt(offset) > 0 ? "a free cell" : "no cell";
            Problem(from, what + " " + Hex(offset) + " names " + why);
            return nullptr;
        }
        if (!referenced_.insert(offset).second && !shared)
            Problem(from, what + " " + Hex(offset) + " is also named elsewhere (cross-linked cells)");
        if (size != nullptr) *size = length;
        return p;
    }

    void CheckKey(std::uint32_t key, std::uint32_t parent, Stack* stack) {
        if (!keysSeen_.insert(key).second) {
            Problem(key, "key is listed more than once (a loop or a shared entry)");
            return;
        }
        std::uint32_t length = 0;
        const std::uint8_t* nk = file_.Payload(key, &length);
        if (nk == nullptr) return;
        if (length < NkField::Name || nk[0] != 'n' || nk[1] != 'k') {
            Problem(key, "key cell is not an nk record");
            return;
        }
        ++report_.keys;
        const std::uint16_t nameLength = LoadU16(nk + NkField::NameLength);
        if (NkField::Name + nameLength > length) Problem(key, "key name of " + std::to_string(nameLength) + " bytes runs past its cell");
        if (parent != kNoCellOffset && LoadU32(nk + NkField::ParentCell) != parent)
            Problem(key, "key records parent " + Hex(LoadU32(nk + NkField::ParentCell)) + ", but is listed under " + Hex(parent));
        if (parent == kNoCellOffset && (LoadU16(nk + NkField::Flags) & 0x4) == 0)
            Problem(key, "root key lacks the hive entry flag", true);

        const std::uint32_t security = LoadU32(nk + NkField::SecurityCell);
        if (Cell(security, "security cell", key, nullptr, true) != nullptr) ++securityRefs_[security];
        const std::uint16_t classLength = LoadU16(nk + NkField::ClassLength);
        if (classLength != 0) {
            std::uint32_t size = 0;
            if (Cell(LoadU32(nk + NkField::ClassCell), "class name cell", key, &size) != nullptr && size < classLength)
                Problem(key, "class name of " + std::to_string(classLength) + " bytes is larger than its cell");
        }
        CheckSubKeys(key, LoadU32(nk + NkField::SubKeyCount), LoadU32(nk + NkField::SubKeyListCell), stack);
        CheckValues(key, LoadU32(nk + NkField::ValueCount), LoadU32(nk + NkField::ValueListCell));
    }

    void CheckSubKeys(std::uint32_t key, std::uint32_t count, std::uint32_t listCell, Stack* stack) {
        if (count == 0) return;
        std::uint32_t size = 0;
        const std::uint8_t* list = Cell(listCell, "subkey list", key, &size);
        if (list == nullptr) return;
        std::vector<std::uint32_t> entries;
        if (size >= 4 && list[0] == 'r' && list[1] == 'i') {
            const std::uint16_t n = LoadU16(list + Tamvik::ListField::Count);
            if (4u + 4u * n > size) {
                Problem(listCell, "ri list of " + std::to_string(n) + " entries is larger than its cell");
                return;
            }
            for (std::uint16_t i = 0; i < n; ++i) {
                std::uint32_t leafCell = LoadU32(list + 4 + 4 * i);
                std::uint32_t leafSize = 0;
                const std::uint8_t* leaf = Cell(leafCell, "ri entry", listCell, &leafSize);
                if (leaf != nullptr && !ReadLeaf(leafCell, leaf, leafSize, &entries))
                    Problem(leafCell, "ri entry is not an lf, lh or li list");
            }
        } else if (!ReadLeaf(listCell, list, size, &entries)) {
            Problem(listCell, "subkey list is not an lf, lh, li or ri record");
            return;
        }
        if (entries.size() != count)
            Problem(key, "key counts " + std::to_string(count) + " subkeys, its list holds " +
                             std::to_string(entries.size()));
        // Their order is checked by name, on the walk through the library; a
        // key named twice is told by CheckKey.
        for (std::uint32_t entry : entries)
            if (Cell(entry, "subkey list entry", listCell, nullptr, true) != nullptr) stack->push_back({entry, key});
    }

    bool ReadLeaf(std::uint32_t cell, const std::uint8_t* list, std::uint32_t size, std::vector<std::uint32_t>* out) {
        if (size < 4) return false;
        const bool hinted = list[0] == 'l' && (list[1] == 'f' || list[1] == 'h');
        const bool plain = list[0] == 'l' && list[1] == 'i';
        if (!hinted && !plain) return false;
        const std::uint16_t n = LoadU16(list + Tamvik::ListField::Count);
        const std::uint32_t step = Tamvik::ListEntrySize(LoadU16(list));
        if (4u + step * n > size) {
            Problem(cell, "subkey leaf of " + std::to_string(n) + " entries is larger than its cell");
            return true;
        }
        for (std::uint16_t i = 0; i < n; ++i) out->push_back(LoadU32(list + 4 + step * i));
        return true;
    }

    void CheckValues(std::uint32_t key, std::uint32_t count, std::uint32_t listCell) {
        if (count == 0) return;
        std::uint32_t size = 0;
        const std::uint8_t* list = Cell(listCell, "value list", key, &size);
        if (list == nullptr) return;
        if (static_cast<std::uint64_t>(count) * 4 > size) {
            Problem(listCell, "value list of " + std::to_string(count) + " entries is larger than its cell");
            count = size / 4;
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t valueCell = LoadU32(list + 4 * i);
            std::uint32_t vkSize = 0;
            const std::uint8_t* vk = Cell(valueCell, "value list entry", listCell, &vkSize);
            if (vk == nullptr) continue;
            if (vkSize < VkField::Name || vk[0] != 'v' || vk[1] != 'k') {
                Problem(valueCell, "value cell is not a vk record");
                continue;
            }
            ++report_.values;
            const std::uint16_t nameLength = LoadU16(vk + VkField::NameLength);
            if (VkField::Name + nameLength > vkSize) Problem(valueCell, "value name runs past its cell");
            CheckData(valueCell, vk);
        }
    }

    void CheckData(std::uint32_t valueCell, const std::uint8_t* vk) {
        const std::uint32_t length = LoadU32(vk + VkField::DataLength);
        const std::uint32_t dataCell = LoadU32(vk + VkField::DataCell);
        if (length >= kInline) {
            if (length - kInline > 4) Problem(valueCell, "inline data of " + std::to_string(length - kInline) + " bytes (at most 4 fit)");
            return;
        }
        if (length == 0) return;
        std::uint32_t size = 0;
        const std::uint8_t* data = Cell(dataCell, "data cell", valueCell, &size);
        if (data == nullptr) return;
        if (Tamvik::IsBigDataLength(file_.Base().minorVersion, length)) {
            if (size < 8 || data[0] != 'd' || data[1] != 'b') {
                Problem(dataCell, "data of " + std::to_string(length) + " bytes needs a db record, the cell has none");
                return;
            }
            const std::uint16_t segments = LoadU16(data + Tamvik::DbField::SegmentCount);
            const std::uint32_t expected = (length + kSegmentSize - 1) / kSegmentSize;
            if (segments < expected)
                Problem(dataCell, "db has " + std::to_string(segments) + " segments, " + std::to_string(expected) + " needed");
            std::uint32_t listSize = 0;
            const std::uint32_t listCell = LoadU32(data + Tamvik::DbField::SegmentListCell);
            const std::uint8_t* list = Cell(listCell, "db segment list", dataCell, &listSize);
            if (list == nullptr) return;
            if (4u * segments > listSize) {
                Problem(listCell, "segment list is smaller than its count");
                return;
            }
            for (std::uint32_t i = 0; i < segments; ++i) {
                std::uint32_t segmentSize = 0;
                std::uint32_t segment = LoadU32(list + 4 * i);
                if (Cell(segment, "segment", listCell, &segmentSize) == nullptr) continue;
                std::uint32_t needed = i + 1 < expected ? kSegmentSize : i + 1 == expected ? length - i * kSegmentSize : 0;
                if (segmentSize < needed) Problem(segment, "segment smaller than its share of the data");
            }
            return;
        }
        if (size < length) Problem(dataCell, "data of " + std::to_string(length) + " bytes is larger than its cell");
    }

    void CheckSecurity() {
        for (auto [sk, references] : securityRefs_) {
            std::uint32_t size = 0;
            const std::uint8_t* p = file_.Payload(sk, &size);
            if (p == nullptr) continue;
            if (size < SkField::Descriptor || p[0] != 's' || p[1] != 'k') {
                Problem(sk, "security cell is not an sk record");
                continue;
            }
            const std::uint32_t refCount = LoadU32(p + SkField::RefCount);
            if (refCount < references)
                Problem(sk, "sk reference count " + std::to_string(refCount) + ", but " + std::to_string(references) +
                                " keys use it");
            else if (refCount > references)
                Problem(sk, "sk reference count " + std::to_string(refCount) + ", " + std::to_string(references) +
                                " keys use it", true);
            if (SkField::Descriptor + LoadU32(p + SkField::DescriptorLength) > size) Problem(sk, "security descriptor runs past its cell");
            // The ring: the next cell must point back here.
            const std::uint32_t next = LoadU32(p + SkField::NextSecurity);
            std::uint32_t nextSize = 0;
            const std::uint8_t* n = Cell(next, "sk ring link", sk, &nextSize, true);
            if (n != nullptr && (nextSize < SkField::Descriptor || n[0] != 's' || n[1] != 'k' || LoadU32(n + SkField::PrevSecurity) != sk))
                Problem(sk, "sk ring broken: next " + Hex(next) + " doesn't point back");
        }
    }

    // Allocated cells that nothing reached: space lost to the hive.
    void CheckLeaks() {
        std::uint64_t lost = 0;
        std::string first;
        for (std::uint32_t cell : file_.AllocatedCells()) {
            if (referenced_.count(cell) != 0) continue;
            if (++lost <= 5) first += (first.empty() ? "" : ", ") + Hex(cell);
        }
        if (lost != 0)
            Problem(0, std::to_string(lost) + " allocated cell(s) not reached from the root key (first: " + first + ")",
                    true, FindingKind::Unreached);
    }

    const Tamvik::HiveScan& file_;
    StructureReport report_;
    std::set<std::uint32_t> keysSeen_;
    std::set<std::uint32_t> referenced_;
    std::map<std::uint32_t, std::uint32_t> securityRefs_;
};

}  // namespace

StructureReport CheckStructure(const Tamvik::HiveScan& file) { return Checker(file).Run(); }

}  // namespace TamvikTool
