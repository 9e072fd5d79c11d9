// Runs the tamvik tool from a scratch folder (see ToolRun.h).
#include "support/ToolRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
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

pid_t ToolTest::Start(const std::vector<std::string>& args) const {
    std::vector<std::string> words = {TAMVIK_TOOL};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int fd : {1, 2}) posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    EXPECT_EQ(posix_spawn(&pid, TAMVIK_TOOL, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int ToolTest::Finish(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string ToolTest::NewHive(const std::string& name) const {
    EXPECT_EQ(Cli({"new", At(name)}).status, 0);
    return At(name);
}

}  // namespace TamvikTest
