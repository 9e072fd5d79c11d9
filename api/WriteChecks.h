// Steps shared by the write entry points of the wide and the narrow family.
#pragma once

#include <string>

#include "RegAPI.h"
#include "nodes/Key.h"

namespace Tamvik {

// Types of a fixed size: 32-bit, big-endian 32-bit and 64-bit numbers.
bool HasFixedSize(RegAPI::DWORD type);
// Finds the value by name and replaces its data with storedData; type and size are the caller's.
RegAPI::LONG ReplaceValue(Key* key, const WString& name, RegAPI::DWORD type, RegAPI::DWORD size,
                          const RegAPI::BYTE* storedData, RegAPI::DWORD storedSize);
// Whether the key has a value of that name.
bool ValueExists(Key* key, const WString& name);
// Adds the value under its narrow name; 87 when it can't be made.
RegAPI::LONG CreateValue(Key* key, const std::string& narrowName, const WString& wideName, RegAPI::DWORD type,
                         const RegAPI::BYTE* data, RegAPI::DWORD size);
// Deletes the key that path names below key.
RegAPI::LONG DeleteKeyAt(Key* key, const char16_t* path);
// Deletes the value of that name.
RegAPI::LONG DeleteValueNamed(Key* key, const char16_t* name);

}  // namespace Tamvik
