// The changes to a hive: new keys and values, rewritten data, deletion, and
// the reference counts of shared sk cells. Each returns success as a bool (or
// a cell offset, 0 for failure); the entry points turn that into a number.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "nodes/Key.h"
#include "nodes/Security.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/Hive.h"

namespace Tamvik {

// Longest name a record can hold: NameLength has 16 bits.
constexpr std::size_t kMaxNameBytes = 0xFFFF;

// sk reference counts and the ring of sk cells.
void AddSecurityRef(Key* key, Hive* hive);
void ReleaseSecurity(Key* key, Hive* hive);
void UnlinkSecurity(Security* security, Hive* hive);

// Key creation. The name is narrow (code page 936 bytes) and stored as given.
bool AddSubKey(Key* owner, Hive* hive, const std::string& name, std::unique_ptr<Key>* created);
std::uint32_t WriteKeyCell(Key* owner, Hive* hive, const std::string& name);
void InitKeyRecord(Key* owner, std::uint8_t* record, const std::string& name, std::int32_t nameLength);
std::uint32_t WriteSubKeyList(Key* owner, Hive* hive, const std::string& name, std::uint32_t keyCell);
bool InsertSubKeyEntry(Key* owner, Hive* hive, const RecordRef& oldLeaf, std::uint8_t* newLeaf,
                       const std::string& name, std::uint32_t keyCell);
// The lh hash of a narrow name.
std::uint32_t NameHash(const std::string& name);

// Value creation.
bool AddValue(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data, std::uint32_t type,
              std::uint32_t length);
// AddValue's steps without the bookkeeping of the lookup caches.
bool AddValueCells(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data, std::uint32_t type,
                   std::uint32_t length);
std::uint32_t WriteValueCell(Key* owner, Hive* hive, const std::string& name, const std::uint8_t* data,
                             std::uint32_t type, std::uint32_t length);
void InitValueRecord(std::uint8_t* record, const std::string& name, const std::uint8_t* data, std::uint32_t type,
                     std::uint32_t length);
std::uint32_t WriteValueList(Key* owner, Hive* hive, std::uint32_t valueCell);
// A db record with its segment list and segments of 16344 bytes; 0 on failure, with nothing left behind.
std::uint32_t WriteBigData(Hive* hive, const std::uint8_t* data, std::uint32_t length);
// Data of this length is stored through a db record in this hive.
bool NeedsBigData(Hive* hive, std::uint32_t length);

// Value data rewrite.
bool SetValueData(Val* value, Hive* hive, const std::uint8_t* data, std::uint32_t length);
void UpdateMaxValueData(Val* value, Hive* hive, std::uint32_t length);

// Deletion.
bool DeleteKey(Key* key, Hive* hive);
void DeleteValues(Key* key, Hive* hive);
void RemoveFromParent(Key* parent, Hive* hive, Key* key);
void DeleteValue(Val* value, Hive* hive);
void FreeValueData(Val* value, Hive* hive);
void RemoveValueEntry(SubValList* list, Hive* hive, Key* owner, std::uint32_t position);

}  // namespace Tamvik
