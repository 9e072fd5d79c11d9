// Writing a whole file so that it appears complete or not at all.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace TamvikTool {

// Writes into a temporary file beside path, flushes it to disk, then renames
// it into place. Without replace an existing file is never touched. mode is
// applied to the new file. Throws ToolError; the temporary file never stays.
void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, mode_t mode, bool replace);

}  // namespace TamvikTool
