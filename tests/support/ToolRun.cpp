#include "support/ToolRun.h"

#include <unistd.h>

#include <fstream>

#include "support/Files.h"
#include "support/Peers.h"

namespace TamvikTest {

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string ReadText(const std::string& path) {
    const Bytes bytes = ReadFileBytes(path);
    return std::string(bytes.begin(), bytes.end());
}

void ToolTest::SetUp() {
    dir = std::filesystem::temp_directory_path() /
          ("tamvik-tool-" + std::to_string(getpid()) + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::create_directories(dir);
}

void ToolTest::TearDown() { std::filesystem::remove_all(dir); }

ToolRun ToolTest::Cli(const std::vector<std::string>& args, const std::string& input) const {
    std::string command = Quoted(TAMVIK_TOOL);
    for (const std::string& arg : args) command += " " + Quoted(arg);
    WriteText(At(".in"), input);
    const auto [status, out] = Capture(command + " <" + Quoted(At(".in")) + " 2>" + Quoted(At(".err")));
    return {status, out, ReadText(At(".err"))};
}

std::string ToolTest::NewHive(const std::string& name) const {
    EXPECT_EQ(Cli({"new", At(name)}).status, 0);
    return At(name);
}

}  // namespace TamvikTest
