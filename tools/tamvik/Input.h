// What a command reads besides the hive: a file named on the command line,
// or standard input for "-".
#pragma once

#include <string>

#include "Text.h"

namespace TamvikTool {

// The whole file; a usage error (the hive is not opened yet) when it can't be read.
Bytes ReadInput(const std::string& name);

}  // namespace TamvikTool
