#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

#include "store/CodePage.h"
#include "edit/Edit.h"
#include "nodes/MakeNode.h"
#include "store/Allocator.h"
#include "store/ByteOrder.h"

namespace Tamvik {

namespace {
constexpr std::uint32_t kKeyFixedSize = 80;  // size field and the fixed part of an nk
constexpr std::uint32_t kMaxLeafEntries = 0xFFFF;

// The first four bytes of a name, the first byte lowest; zeros behind a short name.
std::uint32_t NameHint(const std::string& name) {
    std::uint8_t bytes[4] = {};
    std::memcpy(bytes, name.data(), std::min<std::size_t>(name.size(), 4));
    return LoadU32(bytes);
}
}  // namespace

std::uint32_t NameHash(const std::string& name) {
    std::uint32_t hash = 0;
    for (char c : name) {
        auto byte = static_cast<unsigned char>(c);
        // Bytes from 0x80 add their value as a negative 8-bit number, untouched by toupper.
        std::int32_t term = byte < 0x80 ? std::toupper(byte) : static_cast<std::int32_t>(static_cast<std::int8_t>(byte));
        hash = hash * 37 + static_cast<std::uint32_t>(term);
    }
    return hash;
}

void InitKeyRecord(Key* owner, std::uint8_t* record, const std::string& name, std::int32_t nameLength) {
    StoreU16(record + NkField::Signature, kNkSignature);
    StoreU16(record + NkField::Flags, NkField::NarrowNameFlag);
    StoreU64(record + NkField::Timestamp, static_cast<std::uint64_t>(Time64()));
    StoreU32(record + NkField::ParentCell, owner->GetOffset());
    StoreU32(record + NkField::SubKeyCount, 0);
    StoreU32(record + NkField::SubKeyListCell, 0);
    StoreU32(record + NkField::ValueCount, 0);
    StoreU32(record + NkField::ValueListCell, kNoCell);
    StoreU32(record + NkField::SecurityCell, owner->Field(NkField::SecurityCell));
    StoreU32(record + NkField::ClassCell, kNoCell);
    StoreU16(record + NkField::NameLength, static_cast<std::uint16_t>(nameLength));
    StoreU16(record + NkField::ClassLength, 0);
    std::memcpy(record + NkField::Name, name.data(), name.size());
}

std::uint32_t WriteKeyCell(Key* owner, Hive* hive, const std::string& name) {
    if (name.size() > kMaxNameBytes) return 0;
    const auto length = static_cast<std::uint32_t>(name.size());
    if (owner->record.U16(NkField::Signature) != kNkSignature) return 0;
    return CreateCell(hive, length + kKeyFixedSize, [&](std::uint8_t* record, std::uint32_t) {
        InitKeyRecord(owner, record, name, static_cast<std::int32_t>(length));
    });
}

bool InsertSubKeyEntry([[maybe_unused]] Key* owner, Hive* hive, const RecordRef& oldLeaf, std::uint8_t* newLeaf,
                       const std::string& name, std::uint32_t keyCell) {
    const std::uint16_t signature = oldLeaf.U16(ListField::Signature);
    if (signature != kLfSignature && signature != kLhSignature) return false;
    const std::uint32_t count = oldLeaf.U16(ListField::Count);
    StoreU16(newLeaf + ListField::Signature, signature);
    StoreU16(newLeaf + ListField::Count, static_cast<std::uint16_t>(count));
    if (count == 0 || !oldLeaf.Holds(ListField::Entries, static_cast<std::uint64_t>(count) * kFastEntry)) return false;
    bool chosen = false;
    std::uint32_t position = 0;
    std::uint32_t slot = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* entry = oldLeaf.Data() + ListField::Entries + i * kFastEntry;
        if (!chosen) {
            std::optional<WString> existing = KeyNameAt(hive, LoadU32(entry));
            if (!existing) return false;
            // Characters without a code page 936 form compare as '?', as a lossy conversion gives them.
            const std::string existingName = NarrowLossy(*existing);
            const int order = CompareNoCase(name.c_str(), existingName.c_str());
            if (order < 0) {
                chosen = true;
                position = i;
                ++slot;  // this entry and all behind it move one slot on
            } else if (order > 0 && i + 1 == count) {
                chosen = true;
                position = count;
            }
        }
        std::memcpy(newLeaf + ListField::Entries + slot * kFastEntry, entry, kFastEntry);
        ++slot;
    }
    if (!chosen) return false;
    StoreU16(newLeaf + ListField::Count, static_cast<std::uint16_t>(count + 1));
    std::uint8_t* fresh = newLeaf + ListField::Entries + position * kFastEntry;
    StoreU32(fresh, keyCell);
    StoreU32(fresh + 4, signature == kLfSignature ? NameHint(name) : NameHash(name));
    return true;
}

std::uint32_t WriteSubKeyList(Key* owner, Hive* hive, const std::string& name, std::uint32_t keyCell) {
    const std::uint32_t count = owner->SubKeyCount();
    if (count >= kMaxLeafEntries) return 0;
    const std::uint32_t asked = count * kFastEntry + 16;
    if (count == 0) {
        return CreateCell(hive, asked, [&](std::uint8_t* record, std::uint32_t) {
            StoreU16(record + ListField::Signature, kLfSignature);
            StoreU16(record + ListField::Count, 1);
            StoreU32(record + ListField::Entries, keyCell);
            StoreU32(record + ListField::Entries + 4, NameHint(name));
        });
    }
    std::unique_ptr<SubKeyList> list = owner->GetSubKeyList(hive);
    if (list == nullptr) return 0;
    // Everything that can refuse the insertion is settled before the old cell
    // is touched, so a refusal leaves the owner's list as it was.
    if (list->GetCount() != count) return 0;
    std::vector<std::uint8_t> leaf(4 + static_cast<std::size_t>(count + 1) * kFastEntry);
    if (!InsertSubKeyEntry(owner, hive, list->record, leaf.data(), name, keyCell)) return 0;

    // The list stays in a cell with room for the new entry and 8 bytes more.
    CellPlan plan;
    const std::uint32_t capacity = list->GetBufferSize();
    const bool stays = static_cast<std::int32_t>(capacity) >= static_cast<std::int32_t>(asked + 8);
    if (!PlanListRewrite(hive, list->GetOffset(), capacity, stays, asked, plan)) return 0;
    owner->subKeyList.reset();
    list.reset();
    std::vector<std::uint8_t> image(plan.imageLength);
    std::memcpy(image.data() + 4, leaf.data(), std::min<std::size_t>(leaf.size(), plan.cellSize - 4));
    WritePlannedCell(hive, plan, image.data());
    return plan.offset;
}

bool AddSubKey(Key* owner, Hive* hive, const std::string& name, std::unique_ptr<Key>* created) {
    const std::uint32_t keyCell = WriteKeyCell(owner, hive, name);
    if (keyCell == 0) return false;
    const std::uint32_t listCell = WriteSubKeyList(owner, hive, name, keyCell);
    if (listCell == 0) {
        FreeCellAt(hive, keyCell);
        return false;
    }
    std::uint32_t count = owner->SubKeyCount() + 1;
    owner->SetField(NkField::SubKeyCount, count);
    if (count == 0) {
        owner->SetField(NkField::SubKeyListCell, kNoCell);
        owner->SetField(NkField::MaxSubKeyName, 0);
        owner->SetField(NkField::MaxClassName, 0);
    }
    owner->SetField(NkField::SubKeyListCell, listCell);
    const auto length = static_cast<std::uint32_t>(name.size());
    if (((owner->Field(NkField::MaxSubKeyName) & 0xFFFF) >> 1) < length)
        owner->SetField(NkField::MaxSubKeyName, length * 2);
    owner->Save(hive);
    AddSecurityRef(owner, hive);
    CellRef cell = hive->GetCell(keyCell);
    if (!cell.IsUsable()) return false;
    if (created != nullptr) *created = NarrowNode<Key>(MakeNode(cell, hive, owner, CellKind::BySignature));
    return true;
}

}  // namespace Tamvik
