// Subkey lists put into the order Windows keeps.
#include "api/EntryFrame.h"
#include "api/ToolEntry.h"
#include "edit/Edit.h"

namespace Tamvik::ToolEdit {

using namespace RegAPI;

LONG SortSubKeys(HKEY handle, bool* changed) {
    const WriteBack writeBack(handle);
    if (changed != nullptr) *changed = false;
    Key* owner = KeyOf(handle);
    Hive* hive = owner == nullptr ? nullptr : HiveAbove(owner);
    if (hive == nullptr) return Result::Invalid;
    return Tamvik::SortSubKeys(owner, hive, changed) ? Result::Ok : Result::Corrupt;
}

}  // namespace Tamvik::ToolEdit
