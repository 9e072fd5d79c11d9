// Shared steps of the value read entry points of both families.
#pragma once

#include "api/EntryFrame.h"
#include "nodes/Val.h"

namespace Tamvik {

// Fills type, data and dataSize from a value as the wide functions do.
RegAPI::LONG Deliver(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data, RegAPI::DWORD* dataSize);
// The same with string data converted for a narrow caller.
RegAPI::LONG DeliverNarrow(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data,
                           RegAPI::DWORD* dataSize);
// Whether a value type holds text that the narrow functions convert.
bool IsStringType(RegAPI::DWORD type);

}  // namespace Tamvik
