#include "HiveFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Session.h"
#include "logs/Files.h"

namespace TamvikTool {

namespace {

Bytes ReadWhole(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) throw ToolError(path + ": can't open (" + std::strerror(errno) + ")");
    Bytes bytes;
    std::uint8_t buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) throw ToolError(path + ": can't read (read error)");
    return bytes;
}

}  // namespace

HiveFile::HiveFile(const std::string& path) : bytes_(ReadWhole(path)), scan_(bytes_), findings_(scan_.Findings()) {
    for (Finding& finding : findings_)
        if (finding.kind == Tamvik::FindingKind::Dirty) finding.text += " (see tamvik replay)";
}

std::string Hex(std::uint64_t value) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%llx", static_cast<unsigned long long>(value));
    return buffer;
}

std::string WhyNotAHive(const std::string& path) {
    TamvikLogs::Bytes head;
    std::string error;
    if (!TamvikLogs::ReadFile(path, &head, &error, Tamvik::kBaseBlockSize)) return error;
    return Tamvik::WhyNotAHive(head).text;
}

}  // namespace TamvikTool
