#include "LogFile.h"

namespace TamvikLogs {

std::size_t LogFile::SoundEntries() const {
    std::size_t n = 0;
    for (const LogEntry& e : entries) n += e.problem.empty() ? 1 : 0;
    return n;
}

std::size_t LogFile::PageCount() const {
    if (format == LogFormat::Old) return dirtyPages.size();
    std::size_t n = 0;
    for (const LogEntry& e : entries) n += e.pages.size();
    return n;
}

LogFile LoadLog(std::string path, Bytes bytes) {
    LogFile log;
    log.path = std::move(path);
    log.bytes = std::move(bytes);
    log.base = ReadBaseBlock(log.bytes);
    const BaseBlock& b = log.base;
    if (log.bytes.empty()) {
        log.problem = "empty";
    } else if (log.bytes.size() < kLogSectorBytes) {
        log.problem = "only " + std::to_string(log.bytes.size()) + " bytes, shorter than its base block";
    } else if (!b.signatureOk) {
        log.problem = "no \"regf\" signature: not a log";
    } else if (!b.ChecksumOk()) {
        log.problem = "its base block checksum is wrong";
    } else if (b.fileType == FileType::OldLog || b.fileType == FileType::OldLog2000) {
        log.format = LogFormat::Old;
    } else if (b.fileType == FileType::NewLog) {
        log.format = LogFormat::New;
    } else {
        log.problem = "file type " + std::to_string(b.fileType) + " is not a log";
    }
    // A log whose own write didn't end holds nothing to trust.
    if (log.format != LogFormat::None && b.sequence1 != b.sequence2) {
        log.problem = "its sequence numbers " + std::to_string(b.sequence1) + " and " + std::to_string(b.sequence2) +
                      " differ: the log itself was not written completely";
        log.format = LogFormat::None;
    }
    if (log.format == LogFormat::Old) ParseOldLog(log);
    if (log.format == LogFormat::New) ParseNewLog(log);
    return log;
}

}  // namespace TamvikLogs
