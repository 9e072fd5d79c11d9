// The new log format: from the second sector on, "HvLE" entries, each a
// header, page references and the pages, guarded by two Marvin32 hashes.
// Reading stops at the first entry that isn't sound; what follows it can't
// be trusted to be in sequence.
#include "Hex.h"
#include "LogFile.h"
#include "Marvin32.h"

namespace TamvikLogs {

namespace {

// Fills e from the header at e.at (the caller has checked that there are at
// least a header's bytes); returns why the entry is unsound, or empty.
std::string ReadEntry(const Bytes& b, LogEntry& e) {
    const std::uint8_t* p = b.data() + e.at;
    const std::size_t left = b.size() - e.at;
    e.size = LoadU32(p + EntryField::Size);
    e.flags = LoadU32(p + EntryField::Flags);
    e.binsSize = LoadU32(p + EntryField::BinsSize);
    const std::uint32_t count = LoadU32(p + EntryField::PageCount);
    if (e.size < EntryField::PageRefs || e.size % kLogSectorBytes != 0)
        return "size " + std::to_string(e.size) + " is not a multiple of 512";
    if (e.size > left)
        return "size " + std::to_string(e.size) + " runs past the end of the file (" + std::to_string(left) +
               " bytes left): the log is truncated";
    if (Marvin32(p + EntryField::PageRefs, e.size - EntryField::PageRefs) != LoadU64(p + EntryField::Hash1))
        return "hash-1 is wrong: its pages are not what was logged";
    if (Marvin32(p, kHash2Bytes) != LoadU64(p + EntryField::Hash2)) return "hash-2 is wrong: its header is damaged";
    if (!Tamvik::IsWholeBins(e.binsSize))
        return "bins size " + Hex(e.binsSize) + " is not a positive multiple of 4096";
    if (count > (e.size - EntryField::PageRefs) / kPageRefBytes)
        return std::to_string(count) + " page references don't fit in the entry";
    std::size_t data = e.at + EntryField::PageRefs + count * kPageRefBytes;
    const std::size_t end = e.at + e.size;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint8_t* ref = p + EntryField::PageRefs + i * kPageRefBytes;
        PageCopy page{LoadU32(ref), data, LoadU32(ref + 4)};
        if (static_cast<std::uint64_t>(page.binsOffset) + page.size > e.binsSize)
            return "page " + std::to_string(i) + " at " + Hex(page.binsOffset) + " runs past its bins size " +
                   Hex(e.binsSize);
        if (page.size > end - data) return "page " + std::to_string(i) + " runs past the end of the entry";
        data += page.size;
        e.pages.push_back(page);
    }
    return {};
}

}  // namespace

void ParseNewLog(LogFile& log) {
    const Bytes& b = log.bytes;
    for (std::size_t at = log.base.SectorBytes(); at <= b.size() && b.size() - at >= kSignatureBytes;) {
        // Anything but a signature is the end of the entries: free space or
        // the remains of older, shorter writes.
        if (!HasSignature(b.data() + at, kEntrySignature)) return;
        LogEntry e;
        e.at = at;
        if (b.size() - at < EntryField::PageRefs) {
            e.sequenceKnown = b.size() - at >= EntryField::Sequence + 4;
            if (e.sequenceKnown) e.sequence = LoadU32(b.data() + at + EntryField::Sequence);
            e.problem = "header cut short: the log is truncated";
        } else {
            e.sequenceKnown = true;
            e.sequence = LoadU32(b.data() + at + EntryField::Sequence);
            e.problem = ReadEntry(b, e);
        }
        if (!e.problem.empty()) e.pages.clear();
        const bool sound = e.problem.empty();
        log.entries.push_back(std::move(e));
        if (!sound) return;
        at += log.entries.back().size;
    }
}

}  // namespace TamvikLogs
