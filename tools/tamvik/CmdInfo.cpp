// info: facts of the file, from the library's scan of its bytes.
#include <cstdio>

#include "Args.h"
#include "Commands.h"
#include "DirtyState.h"
#include "HiveFile.h"
#include "Session.h"

namespace TamvikTool {

int RunInfo(const Args& args) {
    const HivePlace place = HivePlace::From(args);
    const std::unique_ptr<HiveSource> source = place.Source();
    const HiveFile file(*source);
    const Tamvik::HiveScan& scan = file.Scan();
    // A file without a base block has no facts to show.
    if (scan.FileSize() < Tamvik::kBaseBlockSize || !scan.Base().signatureOk)
        throw ToolError(source->Name() + ": not a hive (" + WhyNotAHive(*source) + ")");
    const Tamvik::BaseBlock& b = scan.Base();
    const Tamvik::CellCounts& c = scan.Counts();
    std::printf("signature       %s\n", b.signatureOk ? "regf" : "(not regf)");
    std::printf("sequence        %u / %u%s\n", b.sequence1, b.sequence2, b.sequence1 == b.sequence2 ? "" : " (dirty)");
    std::printf("version         %u.%u\n", b.majorVersion, b.minorVersion);
    std::printf("file type       %u\n", b.fileType);
    std::printf("format          %u\n", b.format);
    std::printf("root cell       %s\n", Hex(b.rootCell).c_str());
    std::printf("bins size       %u (%s)\n", b.binsSize, Hex(b.binsSize).c_str());
    std::printf("clustering      %u\n", b.clustering);
    std::printf("checksum        %s (%s)\n", Hex(b.storedChecksum).c_str(),
                b.ChecksumOk() ? "ok" : ("bad, computed " + Hex(b.computedChecksum)).c_str());
    std::printf("file name       %s\n", ToUtf8(b.fileName).c_str());
    std::printf("file size       %llu\n", static_cast<unsigned long long>(scan.FileSize()));
    std::printf("bins            %zu\n", scan.Bins().size());
    std::printf("keys            %llu\n", static_cast<unsigned long long>(c.keys));
    std::printf("values          %llu\n", static_cast<unsigned long long>(c.values));
    std::printf("security cells  %llu\n", static_cast<unsigned long long>(c.security));
    std::printf("used space      %llu bytes in %llu cells\n", static_cast<unsigned long long>(c.usedBytes),
                static_cast<unsigned long long>(c.usedCells));
    std::printf("free space      %llu bytes in %llu cells\n", static_cast<unsigned long long>(c.freeBytes),
                static_cast<unsigned long long>(c.freeCells));
    const DirtyState dirt = InspectDirt(*source, place.ReplayArguments());
    std::printf("dirty           %s\n", dirt.dirty ? ("yes: " + dirt.reason).c_str() : "no");
    for (const std::string& log : dirt.logs) std::printf("log             %s\n", log.c_str());
    if (dirt.dirty) std::printf("replay          %s\n", dirt.replay.c_str());
    // Faults met while reading are told, but info is no check: it still succeeds.
    for (const Finding& f : file.Findings())
        std::fprintf(stderr, "tamvik info: %s: %s at file offset %s: %s\n", source->Name().c_str(),
                     f.warning ? "warning" : "problem", Hex(f.fileOffset).c_str(), f.text.c_str());
    return kExitOk;
}

}  // namespace TamvikTool
