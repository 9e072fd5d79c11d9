// Running peer programs from tests: quoting for the shell and capturing output.
#pragma once

#include <string>
#include <utility>

namespace TamvikTest {

// text in single quotes, safe as one shell word.
std::string Quoted(const std::string& text);
// Whole stdout of a shell command, and its exit status (-1 if it didn't run).
std::pair<int, std::string> Capture(const std::string& command);

}  // namespace TamvikTest
