// The changes to a hive: new keys and values, rewritten data, deletion, the
// order of subkey lists, and the reference counts of shared sk cells. These
// are the only routines that write a hive's records: the exported functions
// and the internal API both call them, and differ only in the rules below.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "edit/LeafMemo.h"
#include "edit/NameForms.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Security.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/Hive.h"
#include "store/Status.h"

namespace Tamvik {

// Longest name a record can hold: NameLength has 16 bits.
constexpr std::size_t kMaxNameBytes = 0xFFFF;
// Entries a subkey leaf takes: Count has 16 bits.
constexpr std::uint32_t kMaxLeafEntries = 0xFFFF;
// Entries a value list takes, so that its asked size stays in 32 bits.
constexpr std::uint32_t kMaxValueEntries = 0x3FFFFFF0;

// Whose rules an edit follows where the callers differ.
enum class Caller : std::uint8_t {
    // The exported functions: a new nk or vk is asked 4 bytes larger than its
    // record needs; a subkey list is asked count * 8 + 16 bytes and stays in
    // its cell while the cell holds 8 more; only an lf or lh takes a new key,
    // and a name _stricmp finds equal to the last entry is refused.
    Exported,
    // The internal API: records are asked what they need; a list that moves
    // is asked room to grow (ListRoom) and stays while its cell holds it;
    // every kind of list takes keys.
    Internal,
};

struct EditRules {
    Caller caller = Caller::Internal;
    ListOrder order = ListOrder::Library;
};

// sk reference counts and the ring of sk cells.
void AddSecurityRef(Key* key, Hive* hive);
void ReleaseSecurity(Key* key, Hive* hive);
void UnlinkSecurity(Security* security, Hive* hive);

// Lists: how large a list with one entry more is asked, whether it stays in
// its cell, and taking an entry out of a record.
std::uint32_t AskedSubKeyList(std::uint32_t count, std::uint32_t entrySize, Caller caller);
bool SubKeyListStays(std::uint32_t capacity, std::uint32_t count, std::uint32_t entrySize, Caller caller);
std::uint32_t AskedValueList(std::uint32_t count, Caller caller);
bool ValueListStays(std::uint32_t capacity, std::uint32_t count, Caller caller);
// The entries an internal list is given room for when it holds entries: some to spare, never more than most.
std::uint32_t ListRoom(std::uint32_t entries, std::uint32_t most);
// Moves the entries behind index one place down over it: entries of
// entrySize bytes from offset at of the record, count of them before the
// removal, cut to what the record holds.
void DropEntry(RecordRef& record, std::uint32_t at, std::uint32_t count, std::uint32_t index, std::uint32_t entrySize);
// In a hive in memory: one 32-bit field of the record in cell (at fieldOffset
// of its payload) set, the rest of the cell left as it stands.
inline void WriteRecordField(Hive* hive, std::uint32_t cellOffset, const ImageCell& cell, std::uint32_t fieldOffset,
                             std::uint32_t value) {
    std::uint8_t field[4];
    StoreU32(field, value);
    hive->WriteArea(cellOffset + cell.payload + fieldOffset, field, sizeof field);
}

// Key creation: a new nk under owner, put in its list. Refused (nothing
// written) when a subkey of that name exists (Exists), the list can't take
// it (Damaged) or no room can be had (NoRoom).
// A memo, when given, stands for reading the names of a leaf it holds as the
// file does (see LeafMemo) and is brought up to date.
Status CreateSubKey(Key* owner, Hive* hive, const NewName& name, EditRules rules, std::uint32_t* keyCell,
                    LeafMemo* memo = nullptr);
// The list of owner with the new key's entry, in place or in a new cell; its offset, or 0.
std::uint32_t InsertSubKeyEntry(Key* owner, Hive* hive, const NewName& name, std::uint32_t keyCell, EditRules rules);
// Puts the entries of the key's subkey list (each leaf of an ri, and across
// them) in Windows order: the same cells, each key keeping its hint.
Status SortSubKeys(Key* key, Hive* hive, bool* changed);

// Value creation. The name may be empty (the default value) and the data too.
Status AddValue(Key* owner, Hive* hive, const NewName& name, std::uint32_t type, const std::uint8_t* data,
                std::uint32_t length, Caller caller);
// The value list of owner with one entry more, in place or in a new cell; its offset, or 0.
std::uint32_t AppendValueEntry(Key* owner, Hive* hive, std::uint32_t valueCell, Caller caller);
// A db record with its segment list and segments of 16344 bytes; 0 on failure, with nothing left behind.
std::uint32_t WriteBigData(Hive* hive, const std::uint8_t* data, std::uint32_t length);
// Data of more than 4 bytes in a cell of its own, or in a db when it is big; 0 on failure.
std::uint32_t WriteOutOfLine(Hive* hive, const std::uint8_t* data, std::uint32_t length);
// Data of this length is stored through a db record in this hive.
bool NeedsBigData(Hive* hive, std::uint32_t length);

// Value data rewrite as the exported functions do it: the type stays, the
// cells are reused where they can be.
bool SetValueData(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length);
// A new type and data for a value, the new data written before the old is
// released, so that a failure leaves the value as it was.
Status ReplaceValue(Val* value, Hive* hive, std::uint32_t type, const std::uint8_t* data, std::uint32_t length);
void UpdateMaxValueData(Val* value, Hive* hive, std::uint32_t length);

// Deletion. DeleteKey takes a key without subkeys that is its parent's
// cached list's child, and destroys it.
bool DeleteKey(Key* key, Hive* hive);
// The subkey at a position of owner's list, which must have no subkeys.
Status DeleteSubKeyAt(Key* owner, Hive* hive, std::uint32_t position);
void DeleteValues(Key* key, Hive* hive);
void DeleteValue(Val* value, Hive* hive);
void FreeValueData(Val* value, Hive* hive);

}  // namespace Tamvik
