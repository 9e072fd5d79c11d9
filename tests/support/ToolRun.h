// The tamvik tool run end to end from a scratch folder of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace TamvikTest {

struct ToolRun {
    int status;
    std::string out, err;
    std::string Text() const { return out + err; }
};

class ToolTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string At(const std::string& name) const { return (dir / name).string(); }
    // Runs the tool with each argument quoted, input on its standard input.
    ToolRun Cli(const std::vector<std::string>& args, const std::string& input = "") const;
    // Starts the tool without waiting for it (its output is dropped).
    pid_t Start(const std::vector<std::string>& args) const;
    // Waits for a started tool: its exit status, or 128 + the signal that ended it.
    static int Finish(pid_t pid);
    // A new empty hive in the scratch folder.
    std::string NewHive(const std::string& name = "h.hiv") const;

    std::filesystem::path dir;
};

void WriteText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);

}  // namespace TamvikTest
