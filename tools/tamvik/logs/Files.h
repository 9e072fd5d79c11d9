// Reading hive and log files, and finding the logs that lie beside a hive.
#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "Format.h"

namespace TamvikLogs {

// The whole file, or its first maxBytes; false with *error when it can't be read.
bool ReadFile(const std::string& path, Bytes* out, std::string* error,
              std::size_t maxBytes = std::numeric_limits<std::size_t>::max());

// The suffixes of a hive's logs, in the order they are listed and tried.
constexpr const char* kLogSuffixes[] = {".LOG", ".LOG1", ".LOG2"};

// The regular files beside the hive named like it plus a log suffix, in any
// letter case (copies from Windows keep names of mixed case), in suffix order.
std::vector<std::string> FindLogs(const std::string& hivePath);

}  // namespace TamvikLogs
