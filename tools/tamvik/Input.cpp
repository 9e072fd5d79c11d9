#include "Input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ToolError.h"

namespace TamvikTool {

Bytes ReadInput(const std::string& name) {
    std::FILE* in = name == "-" ? stdin : std::fopen(name.c_str(), "rb");
    if (in == nullptr) UsageError(name + ": can't open (" + std::strerror(errno) + ")");
    Bytes bytes;
    std::uint8_t buffer[65536];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
    const bool failed = std::ferror(in) != 0;
    if (in != stdin) std::fclose(in);
    if (failed) UsageError((name == "-" ? std::string("standard input") : name) + ": can't read (read error)");
    return bytes;
}

}  // namespace TamvikTool
