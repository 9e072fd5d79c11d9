#include "EditGuard.h"

#include "DirtyState.h"
#include "Session.h"
#include "logs/Files.h"

namespace TamvikTool {

void GuardEdit(const std::string& hivePath, bool force) {
    if (force) return;
    TamvikLogs::Bytes head;
    std::string error;
    if (!TamvikLogs::ReadFile(hivePath, &head, &error, TamvikLogs::kBaseBlockBytes)) return;
    const TamvikLogs::BaseBlock base = TamvikLogs::ReadBaseBlock(head);
    // Without the signature it is no hive at all; the library refuses it.
    if (!base.signatureOk || !base.Dirty()) return;
    throw ToolError(hivePath + ": the hive is dirty (" + DirtReason(base) +
                        "): its latest changes may be only in its transaction logs, and Windows would replay them "
                        "over an edit. Run 'tamvik replay' on it first, or give --force to edit it as it is",
                    kExitDirty);
}

}  // namespace TamvikTool
