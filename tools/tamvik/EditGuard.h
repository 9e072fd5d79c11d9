// The one check every editing command passes before it opens a hive for
// writing. Refusals are ToolErrors with a status of their own.
#pragma once

#include <string>

namespace TamvikTool {

// A dirty hive is refused with kExitDirty unless force is set: its latest
// changes may be only in its logs, which Windows would replay over an edit.
// A file that can't be read is let through: opening it will say why.
void GuardEdit(const std::string& hivePath, bool force);

}  // namespace TamvikTool
