#include "HiveFile.h"

#include <cerrno>
#include <cstring>

#include "Session.h"
#include "logs/Files.h"

namespace TamvikTool {

namespace {

Bytes ReadWhole(HiveSource& source) {
    Bytes bytes;
    std::string error;
    if (!source.ReadHive(&bytes, &error))
        throw ToolError(source.Name() + (error == "read error" ? ": can't read (" : ": can't open (") + error + ")");
    return bytes;
}

}  // namespace

HiveFile::HiveFile(HiveSource& source) : bytes_(ReadWhole(source)), scan_(bytes_), findings_(scan_.Findings()) {
    for (Finding& finding : findings_)
        if (finding.kind == Tamvik::FindingKind::Dirty) finding.text += " (see tamvik replay)";
}

std::string WhyNotAHive(HiveSource& source) {
    Bytes head;
    std::string error;
    if (!source.ReadHive(&head, &error, Tamvik::kBaseBlockSize)) return error;
    return Tamvik::WhyNotAHive(head).text;
}

}  // namespace TamvikTool
