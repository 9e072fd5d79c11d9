// Keys of any name for the tool: opened by position or by a name that can't
// be passed as a path, created in either name form, deleted.
#include <cstring>
#include <memory>
#include <vector>

#include "store/CodePage.h"
#include "api/EntryFrame.h"
#include "edit/Edit.h"
#include "edit/NameForms.h"
#include "api/ToolEntry.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"

namespace Tamvik::ToolEdit {

using namespace RegAPI;

namespace {

constexpr std::uint32_t kMaxLeafCount = 0xFFFF;

bool IsLeaf(std::uint16_t signature) {
    return signature == kLfSignature || signature == kLhSignature || signature == kLiSignature;
}

// The ordering of a new entry against the names already listed.
class Placement {
public:
    Placement(const WString& name, ListOrder order) : name_(name), order_(order) {
        if (order_ == ListOrder::Library) narrow_ = NarrowLossy(name_);
    }
    // True when the new name goes before existing.
    bool Before(const WString& existing) const {
        if (order_ == ListOrder::Windows) return CompareWindowsOrder(name_, existing) < 0;
        // As the library places a new entry: characters without a code page
        // 936 form compare as '?'.
        return CompareNoCase(narrow_.c_str(), NarrowLossy(existing).c_str()) < 0;
    }

private:
    const WString& name_;
    ListOrder order_;
    std::string narrow_;
};

// The cells of a list's entries in order, over the leaves of an ri too.
struct ListView {
    std::unique_ptr<SubKeyList> top;
    std::vector<std::unique_ptr<SubKeyList>> leaves;  // the ri's leaves, or the list itself
};

bool ReadList(Key* owner, Hive* hive, ListView* view) {
    view->top = owner->GetSubKeyList(hive);
    if (view->top == nullptr) return false;
    if (IsLeaf(view->top->Signature())) {
        view->leaves.push_back(std::move(view->top));
        return true;
    }
    if (view->top->Signature() != kRiSignature) return false;
    for (std::uint32_t j = 0; j < view->top->GetCount(); ++j) {
        if (!view->top->record.Holds(ListField::Entries + 4 * j, 4)) return false;
        const std::uint32_t cell = view->top->record.U32(ListField::Entries + 4 * j);
        view->leaves.push_back(BuildNodeAt<SubKeyList>(hive, cell, owner, CellKind::BySignature));
        if (view->leaves.back() == nullptr || !IsLeaf(view->leaves.back()->Signature())) return false;
    }
    return true;
}

// Writes a leaf with the new entry at position, in its cell when it has room,
// else in a new one; gives the leaf's cell, 0 on failure.
std::uint32_t InsertIntoLeaf(Hive* hive, SubKeyList* leaf, std::uint32_t position, std::uint32_t keyCell,
                             const WString& name) {
    const std::uint16_t signature = leaf->Signature();
    const std::uint32_t size = ListEntrySize(signature), count = leaf->GetCount();
    if (count >= kMaxLeafCount) return 0;
    const std::uint32_t asked = ListField::Entries + (count + 1) * size;
    std::vector<std::uint8_t> record(asked);
    std::memcpy(record.data(), leaf->record.Data(), ListField::Entries + position * size);
    std::memcpy(record.data() + ListField::Entries + (position + 1) * size,
                leaf->record.Data() + ListField::Entries + position * size, (count - position) * size);
    StoreU16(record.data() + ListField::Count, static_cast<std::uint16_t>(count + 1));
    std::uint8_t* fresh = record.data() + ListField::Entries + position * size;
    StoreU32(fresh, keyCell);
    if (size == 8) StoreU32(fresh + 4, HintFor(signature, name));

    CellPlan plan;
    const std::uint32_t capacity = leaf->GetBufferSize();
    if (!PlanListRewrite(hive, leaf->GetOffset(), capacity, capacity >= NeedFor(asked), asked, plan)) return 0;
    std::vector<std::uint8_t> image(plan.imageLength);
    std::memcpy(image.data() + 4, record.data(), asked);
    WritePlannedCell(hive, plan, image.data());
    return plan.offset;
}

// Puts the new key into the owner's list (a new lf for the first); gives the
// list's cell, 0 on failure with nothing changed. *exists when the name is taken.
std::uint32_t InsertSubKey(Key* owner, Hive* hive, std::uint32_t keyCell, const WString& name, ListOrder order,
                           bool* exists) {
    const std::uint32_t count = owner->SubKeyCount();
    if (count == 0) {
        return CreateCell(hive, ListField::Entries + 8, [&](std::uint8_t* record, std::uint32_t) {
            StoreU16(record + ListField::Signature, kLfSignature);
            StoreU16(record + ListField::Count, 1);
            StoreU32(record + ListField::Entries, keyCell);
            StoreU32(record + ListField::Entries + 4, WindowsNameHint(name));
        });
    }
    ListView view;
    if (!ReadList(owner, hive, &view)) return 0;
    // The leaf and position: before the first name that orders after the new one.
    const Placement placement(name, order);
    std::size_t leafIndex = view.leaves.size() - 1;
    std::uint32_t position = view.leaves.back()->GetCount();
    bool placed = false;
    std::uint32_t seen = 0;
    for (std::size_t j = 0; j < view.leaves.size(); ++j) {
        SubKeyList& leaf = *view.leaves[j];
        const std::uint32_t size = ListEntrySize(leaf.Signature()), n = leaf.GetCount();
        if (!leaf.record.Holds(ListField::Entries, static_cast<std::uint64_t>(n) * size)) return 0;
        for (std::uint32_t i = 0; i < n; ++i) {
            std::optional<WString> existing = KeyNameAt(hive, leaf.record.U32(ListField::Entries + i * size));
            if (!existing) return 0;
            if (SameName(*existing, name)) {
                *exists = true;
                return 0;
            }
            if (!placed && placement.Before(*existing)) {
                placed = true;
                leafIndex = j;
                position = i;
            }
        }
        seen += n;
    }
    if (seen != count) return 0;  // a damaged list is left as it is
    SubKeyList* leaf = view.leaves[leafIndex].get();
    const std::uint32_t leafCell = InsertIntoLeaf(hive, leaf, position, keyCell, name);
    if (leafCell == 0 || view.top == nullptr) return leafCell;
    // A leaf of an ri that moved: the ri names its new cell, in place.
    if (leafCell != leaf->GetOffset()) {
        view.top->record.SetU32(ListField::Entries + 4 * static_cast<std::uint32_t>(leafIndex), leafCell);
        view.top->Save(hive);
    }
    return view.top->GetOffset();
}

bool NeedsScan(const WString& name) {
    return name.find(u'\0') != WString::npos || name.find(u'\\') != WString::npos;
}

}  // namespace

LONG OpenSubKeyAt(HKEY handle, DWORD index, HKEY* result) {
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr || index >= owner->SubKeyCount()) return Result::Invalid;
    if (owner->subKeyList == nullptr) owner->subKeyList = owner->GetSubKeyList(hive);
    if (owner->subKeyList == nullptr) return Result::Corrupt;
    // The list holds the key it gives, as a lookup by name leaves it.
    owner->subKeyList->child = owner->subKeyList->GetAt(hive, index);
    if (owner->subKeyList->child == nullptr) return Result::Corrupt;
    *result = HandleOf(owner->subKeyList->child.get());
    return Result::Ok;
}

LONG OpenSubKey(HKEY handle, const WString& name, HKEY* result) {
    if (!NeedsScan(name)) return RegOpenKeyExW(handle, name.c_str(), 0, 0, result);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr) return Result::Invalid;
    const std::uint32_t count = owner->SubKeyCount();
    std::unique_ptr<SubKeyList> list = count == 0 ? nullptr : owner->GetSubKeyList(hive);
    for (std::uint32_t i = 0; list != nullptr && i < count; ++i) {
        std::optional<WString> existing = list->NameAt(hive, i);
        if (existing && SameName(*existing, name)) return OpenSubKeyAt(handle, i, result);
    }
    return Result::Invalid;
}

LONG CreateSubKey(HKEY handle, const WString& name, ListOrder order, HKEY* result) {
    const WriteBack writeBack(handle);
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr || result == nullptr || name.empty()) return Result::Invalid;
    const std::optional<StoredName> stored = StoreName(name);
    if (!stored || owner->record.U16(NkField::Signature) != kNkSignature) return Result::CannotCreate;
    const std::uint32_t keyCell =
        CreateCell(hive, NkField::Name + static_cast<std::uint32_t>(stored->bytes.size()),
                   [&](std::uint8_t* record, std::uint32_t) {
                       InitKeyRecord(owner, record, stored->bytes, static_cast<std::int32_t>(stored->bytes.size()));
                       if (!stored->compressed) StoreU16(record + NkField::Flags, 0);
                   });
    if (keyCell == 0) return Result::CannotCreate;
    bool exists = false;
    const std::uint32_t listCell = InsertSubKey(owner, hive, keyCell, name, order, &exists);
    if (listCell == 0) {
        FreeCellAt(hive, keyCell);
        return exists ? Result::AlreadyExists : Result::CannotCreate;
    }
    owner->subKeyList.reset();  // its image and names are of the old list
    owner->SetField(NkField::SubKeyCount, owner->SubKeyCount() + 1);
    owner->SetField(NkField::SubKeyListCell, listCell);
    const auto units = static_cast<std::uint32_t>(name.size());
    if (((owner->Field(NkField::MaxSubKeyName) & 0xFFFF) >> 1) < units)
        owner->SetField(NkField::MaxSubKeyName, units * 2);
    owner->Save(hive);
    AddSecurityRef(owner, hive);
    std::unique_ptr<Key> created = BuildNodeAt<Key>(hive, keyCell, owner, CellKind::BySignature);
    if (created == nullptr) return Result::Corrupt;
    *result = HandleOf(created.get());
    hive->createdKeys.push_back(std::move(created));
    return Result::Ok;
}

LONG DeleteSubKey(HKEY handle, const WString& name) {
    const WriteBack writeBack(handle);
    HKEY child = nullptr;
    if (LONG r = OpenSubKey(handle, name, &child); r != Result::Ok) return r;
    Key* key = KeyOf(child);
    Hive* hive = key == nullptr ? nullptr : HiveAbove(key);
    if (hive == nullptr) return Result::Invalid;
    return DeleteKey(key, hive) ? Result::Ok : Result::Invalid;
}

LONG KeyTimestamp(HKEY handle, std::uint64_t* stamp) {
    Key* key = KeyOf(handle);
    if (key == nullptr || stamp == nullptr) return Result::Invalid;
    *stamp = key->Field(NkField::Timestamp) | static_cast<std::uint64_t>(key->Field(NkField::Timestamp + 4)) << 32;
    return Result::Ok;
}

}  // namespace Tamvik::ToolEdit
