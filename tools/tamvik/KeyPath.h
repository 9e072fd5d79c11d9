// Key paths as the tool takes and shows them: components below the root.
#pragma once

#include <string>
#include <vector>

namespace TamvikTool {

// A key below the root, as its components; empty means the root.
using KeyPath = std::vector<std::u16string>;

// Parses "A\B", "\A\B", "\" or "" (UTF-8) into components.
KeyPath ParseKeyPath(const std::string& text);
// Splits a wide path the same way.
KeyPath SplitKeyPath(const std::u16string& text);
// "\A\B", or "\" for the root; UTF-8 for messages and listings.
std::string ShowPath(const KeyPath& path);
std::u16string JoinPath(const KeyPath& path);
// The --prefix of export and import (UTF-8), without backslashes at its end.
std::u16string ParsePrefix(const std::string& text);

}  // namespace TamvikTool
