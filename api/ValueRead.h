// Shared steps of the value read entry points of both families.
#pragma once

#include "api/EntryFrame.h"
#include "nodes/Key.h"
#include "nodes/MakeNode.h"
#include "nodes/Val.h"

#include <memory>

namespace Tamvik {

// The value of that name (any case) under key, found through its cached list; null if none.
Val* FindValueNamed(Key* key, const WString& name, Hive** hive);
// The steps the enumerations share: the counts tested, the key's list as the
// file holds it and the value at index built (87 for a bad index, 1015 when a
// node can't be built); then use(value, hive), whose result is given.
template <class Use>
RegAPI::LONG WithValueAt(Key* key, RegAPI::DWORD index, Use use) {
    using namespace RegAPI;
    if (key->ValueCount() == 0 || index >= key->ValueCount()) return Result::Invalid;
    Hive* hive = HiveAbove(key);
    if (hive == nullptr) return Result::Invalid;
    const std::optional<std::uint32_t> cell = key->EnumValueCell(hive, index);
    if (!cell) return Result::Corrupt;
    const Transient<Val> value(hive, *cell, key, CellKind::BySignature);
    if (!value) return Result::Corrupt;
    return use(value.get(), hive);
}
// Fills type, data and dataSize from a value as the wide functions do.
RegAPI::LONG Deliver(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data, RegAPI::DWORD* dataSize);
// The same with string data converted for a narrow caller.
RegAPI::LONG DeliverNarrow(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data,
                           RegAPI::DWORD* dataSize);
// Whether a value type holds text that the narrow functions convert.
bool IsStringType(RegAPI::DWORD type);

}  // namespace Tamvik
