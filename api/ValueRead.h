// Shared steps of the value read entry points of both families.
#pragma once

#include "api/EntryFrame.h"
#include "nodes/Key.h"
#include "nodes/Val.h"

#include <memory>

namespace Tamvik {

// The value of that name (any case) under key, found through its cached list; null if none.
Val* FindValueNamed(Key* key, const WString& name, Hive** hive);
// The steps the enumerations share: the counts tested, a private list and the
// value at index built (87 for a bad index, 1015 when a node can't be built).
RegAPI::LONG ValueAt(Key* key, RegAPI::DWORD index, Hive** hive, std::unique_ptr<SubValList>* list,
                     std::unique_ptr<Val>* value);
// Fills type, data and dataSize from a value as the wide functions do.
RegAPI::LONG Deliver(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data, RegAPI::DWORD* dataSize);
// The same with string data converted for a narrow caller.
RegAPI::LONG DeliverNarrow(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data,
                           RegAPI::DWORD* dataSize);
// Whether a value type holds text that the narrow functions convert.
bool IsStringType(RegAPI::DWORD type);

}  // namespace Tamvik
