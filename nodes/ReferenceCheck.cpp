#include "nodes/ReferenceCheck.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nodes/Data.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Security.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/CellBitmap.h"

namespace Tamvik {

namespace {

std::string Count(std::uint64_t n) { return std::to_string(n); }

// One pass over the tree. The records are read through the same nodes the
// library reads them with, as views over the scanned bytes, so a cell the
// check accepts is one the library would take. References are followed only
// into allocated cells, and every key is entered once, so damaged hives
// can't loop.
class Checker {
public:
    explicit Checker(const HiveScan& file)
        : file_(file), payload_(file.PayloadStart()), keysSeen_(file.FileSize()), referenced_(file.FileSize()) {}

    ReferenceReport Run() {
        const std::uint32_t root = file_.Base().rootCell;
        if (!file_.AllocatedCell(root).empty()) {
            referenced_.Insert(root);
            stack_.push_back({root, kNoCell});
        } else {
            report_.findings.push_back(Finding::Of(FindingKind::Reference, BaseBlockField::RootCell,
                                                   "base block: root cell " + Hex(root) + " names no allocated cell"));
        }
        while (!stack_.empty()) {
            const auto [key, parent] = stack_.back();
            stack_.pop_back();
            CheckKey(key, parent);
        }
        CheckSecurity();
        CheckLeaks();
        return std::move(report_);
    }

private:
    void Problem(std::uint32_t cell, const std::string& text, bool warning = false,
                 FindingKind kind = FindingKind::Reference) {
        report_.findings.push_back(Finding::Of(kind, std::uint64_t{cell} + kBaseBlockSize, text, warning));
    }

    // The node of class T that the allocated cell at offset holds, if it holds one.
    template <class T>
    ImageView<T> View(std::uint32_t offset, CellKind kind) const {
        const std::span<const std::uint8_t> cell = file_.AllocatedCell(offset);
        return ImageView<T>(offset, nullptr, cell.empty() ? nullptr : cell.data(),
                            static_cast<std::uint32_t>(cell.size()), payload_, kind);
    }
    SubKeyListView ListView(std::uint32_t offset) const {
        const std::span<const std::uint8_t> cell = file_.AllocatedCell(offset);
        return SubKeyListView(offset, cell.empty() ? nullptr : cell.data(), static_cast<std::uint32_t>(cell.size()),
                              payload_);
    }

    // Whether a reference names an allocated cell; if not, a problem is told
    // against the referring cell. Only keys' security cells are shared by
    // design; any other cell named twice is cross-linked, and an edit through
    // one owner would free or rewrite it under the other. *size gets the
    // payload's length.
    bool Follow(std::uint32_t offset, std::string_view what, std::uint32_t from, std::uint32_t* size = nullptr,
                bool shared = false) {
        std::uint32_t length = 0;
        const bool allocated = offset != kNoCell && offset % kCellAlignment == 0 &&
                               file_.Payload(offset, &length) != nullptr;
        if (!allocated) {
            const std::string why = file_.CellSizeAt(offset) > 0 ? "a free cell" : "no cell";
            Problem(from, std::string(what) + " " + Hex(offset) + " names " + why);
            return false;
        }
        if (!referenced_.Insert(offset) && !shared)
            Problem(from, std::string(what) + " " + Hex(offset) + " is also named elsewhere (cross-linked cells)");
        if (size != nullptr) *size = length;
        return true;
    }

    void CheckKey(std::uint32_t cell, std::uint32_t parent) {
        if (!keysSeen_.Insert(cell)) {
            Problem(cell, "key is listed more than once (a loop or a shared entry)");
            return;
        }
        if (file_.AllocatedCell(cell).empty()) return;
        ImageView<Key> key = View<Key>(cell, CellKind::BySignature);
        if (!key) {
            Problem(cell, "key cell is not an nk record");
            return;
        }
        ++report_.keys;
        const RecordRef& nk = key->record;
        const std::uint16_t nameLength = nk.U16(NkField::NameLength);
        if (!nk.Holds(NkField::Name, nameLength))
            Problem(cell, "key name of " + Count(nameLength) + " bytes runs past its cell");
        const std::uint32_t recordedParent = key->Field(NkField::ParentCell);
        if (parent != kNoCell && recordedParent != parent)
            Problem(cell, "key records parent " + Hex(recordedParent) + ", but is listed under " + Hex(parent));
        if (parent == kNoCell && (nk.U16(NkField::Flags) & NkField::HiveEntryFlag) == 0)
            Problem(cell, "root key lacks the hive entry flag", true);

        const std::uint32_t security = key->Field(NkField::SecurityCell);
        if (Follow(security, "security cell", cell, nullptr, true)) ++securityRefs_[security];
        const std::uint16_t classLength = nk.U16(NkField::ClassLength);
        std::uint32_t classSize = 0;
        if (classLength != 0 && Follow(key->Field(NkField::ClassCell), "class name cell", cell, &classSize) &&
            classSize < classLength)
            Problem(cell, "class name of " + Count(classLength) + " bytes is larger than its cell");
        CheckSubKeys(cell, key->SubKeyCount(), key->Field(NkField::SubKeyListCell));
        CheckValues(cell, key->ValueCount(), key->Field(NkField::ValueListCell));
    }

    // A list whose record can't hold its own header is no list at all.
    static bool HasHeader(SubKeyList* list) { return list != nullptr && list->record.Holds(0, ListField::Entries); }

    void CheckSubKeys(std::uint32_t key, std::uint32_t count, std::uint32_t listCell) {
        if (count == 0 || !Follow(listCell, "subkey list", key)) return;
        SubKeyListView list = ListView(listCell);
        if (!HasHeader(list.get())) {
            Problem(listCell, "subkey list is not an lf, lh, li or ri record");
            return;
        }
        std::vector<std::uint32_t>& entries = entries_;
        entries.clear();
        if (auto* ri = NodeAs<Indirect>(list.get())) {
            if (!ri->HoldsCount()) {
                Problem(listCell, "ri list of " + Count(ri->GetCount()) + " entries is larger than its cell");
                return;
            }
            for (std::uint32_t j = 0; j < ri->GetCount(); ++j) {
                const std::uint32_t leafCell = ri->EntryCell(j).value_or(kNoCell);
                if (!Follow(leafCell, "ri entry", listCell)) continue;
                SubKeyListView leaf = ListView(leafCell);
                if (!HasHeader(leaf.get()) || FaultOfLeaf(leaf.get()) != LeafFault::None)
                    Problem(leafCell, "ri entry is not an lf, lh or li list");
                else
                    ReadLeaf(*leaf.get(), &entries);
            }
        } else {
            ReadLeaf(*list.get(), &entries);
        }
        if (entries.size() != count)
            Problem(key, "key counts " + Count(count) + " subkeys, its list holds " + Count(entries.size()));
        // Their order is checked by name, on the walk through the library; a
        // key named twice is told by CheckKey.
        for (std::uint32_t entry : entries)
            if (Follow(entry, "subkey list entry", listCell, nullptr, true)) stack_.push_back({entry, key});
    }

    void ReadLeaf(const SubKeyList& leaf, std::vector<std::uint32_t>* out) {
        if (!leaf.HoldsCount()) {
            Problem(leaf.GetOffset(), "subkey leaf of " + Count(leaf.GetCount()) + " entries is larger than its cell");
            return;
        }
        for (std::uint32_t i = 0; i < leaf.GetCount(); ++i) out->push_back(leaf.EntryCell(i).value_or(kNoCell));
    }

    void CheckValues(std::uint32_t key, std::uint32_t count, std::uint32_t listCell) {
        if (count == 0 || !Follow(listCell, "value list", key)) return;
        ImageView<SubValList> list = View<SubValList>(listCell, CellKind::ValueList);
        if (list->EntriesHeld() < count) {
            Problem(listCell, "value list of " + Count(count) + " entries is larger than its cell");
            count = list->EntriesHeld();
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            const std::uint32_t valueCell = list->EntryAt(i).value_or(kNoCell);
            if (!Follow(valueCell, "value list entry", listCell)) continue;
            ImageView<Val> value = View<Val>(valueCell, CellKind::BySignature);
            if (!value) {
                Problem(valueCell, "value cell is not a vk record");
                continue;
            }
            ++report_.values;
            if (!value->record.Holds(VkField::Name, value->record.U16(VkField::NameLength)))
                Problem(valueCell, "value name runs past its cell");
            CheckData(valueCell, *value.get());
        }
    }

    void CheckData(std::uint32_t valueCell, const Val& value) {
        const std::uint32_t length = value.StoredLength();
        if (value.IsInline()) {
            if (length > kMaxInlineData)
                Problem(valueCell, "inline data of " + Count(length) + " bytes (at most 4 fit)");
            return;
        }
        std::uint32_t size = 0;
        const std::uint32_t dataCell = value.DataCell();
        if (length == 0 || !Follow(dataCell, "data cell", valueCell, &size)) return;
        if (!IsBigDataLength(file_.Base().minorVersion, length)) {
            if (size < length) Problem(dataCell, "data of " + Count(length) + " bytes is larger than its cell");
            return;
        }
        ImageView<BigData> db = View<BigData>(dataCell, CellKind::BigDataRecord);
        if (!db->HasDbSignature()) {
            Problem(dataCell, "data of " + Count(length) + " bytes needs a db record, the cell has none");
            return;
        }
        const std::uint32_t segments = db->SegmentCount();
        const std::uint32_t needed = SegmentsNeeded(length);
        if (segments < needed)
            Problem(dataCell, "db has " + Count(segments) + " segments, " + Count(needed) + " needed");
        const std::uint32_t listCell = db->record.U32(DbField::SegmentListCell);
        if (!Follow(listCell, "db segment list", dataCell)) return;
        ImageView<SubDatList> list = View<SubDatList>(listCell, CellKind::SegmentList);
        if (list->EntriesHeld() < segments) {
            Problem(listCell, "segment list is smaller than its count");
            return;
        }
        for (std::uint32_t i = 0; i < segments; ++i) {
            const std::uint32_t segment = list->EntryAt(i).value_or(kNoCell);
            std::uint32_t segmentSize = 0;
            if (Follow(segment, "segment", listCell, &segmentSize) && segmentSize < SegmentShare(length, i))
                Problem(segment, "segment smaller than its share of the data");
        }
    }

    void CheckSecurity() {
        for (const auto& [cell, references] : securityRefs_) {
            if (file_.AllocatedCell(cell).empty()) continue;
            ImageView<Security> sk = View<Security>(cell, CellKind::BySignature);
            if (!sk) {
                Problem(cell, "security cell is not an sk record");
                continue;
            }
            const RecordRef& record = sk->record;
            const std::uint32_t refCount = record.U32(SkField::RefCount);
            if (refCount < references)
                Problem(cell, "sk reference count " + Count(refCount) + ", but " + Count(references) + " keys use it");
            else if (refCount > references)
                Problem(cell, "sk reference count " + Count(refCount) + ", " + Count(references) + " keys use it", true);
            if (!record.Holds(SkField::Descriptor, record.U32(SkField::DescriptorLength)))
                Problem(cell, "security descriptor runs past its cell");
            // The ring: the next cell must point back here.
            const std::uint32_t next = record.U32(SkField::NextSecurity);
            if (!Follow(next, "sk ring link", cell, nullptr, true)) continue;
            ImageView<Security> nextSk = View<Security>(next, CellKind::BySignature);
            if (!nextSk || nextSk->record.U32(SkField::PrevSecurity) != cell)
                Problem(cell, "sk ring broken: next " + Hex(next) + " doesn't point back");
        }
    }

    // Allocated cells that nothing reached: space lost to the hive.
    void CheckLeaks() {
        std::uint64_t lost = 0;
        std::string first;
        file_.AllocatedCells().ForEachNotIn(referenced_, [&](std::uint32_t cell) {
            if (++lost <= 5) first += (first.empty() ? "" : ", ") + Hex(cell);
        });
        if (lost != 0)
            Problem(0, Count(lost) + " allocated cell(s) not reached from the root key (first: " + first + ")", true,
                    FindingKind::Unreached);
    }

    const HiveScan& file_;
    const std::uint32_t payload_;
    ReferenceReport report_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> stack_;  // (key, the key that lists it)
    CellBitmap keysSeen_;
    CellBitmap referenced_;
    std::map<std::uint32_t, std::uint32_t> securityRefs_;  // sk cell, keys that name it
    std::vector<std::uint32_t> entries_;  // the subkey list being checked, kept to spare an allocation per key
};

}  // namespace

ReferenceReport CheckReferences(const HiveScan& file) { return Checker(file).Run(); }

}  // namespace Tamvik
