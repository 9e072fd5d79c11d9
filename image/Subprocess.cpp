// Children with captured stderr.
#include "Subprocess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "Block.h"

extern char** environ;

namespace TamvikImage {

CapturedStderr::CapturedStderr() : fd_(-1) {
    const int fd = memfd_create("tamvik-stderr", 0);
    if (fd < 0) return;
    fd_ = fcntl(fd, F_DUPFD, 10);
    close(fd);
}

CapturedStderr::~CapturedStderr() {
    if (fd_ >= 0) close(fd_);
}

std::string CapturedStderr::Text(const std::string& program) const {
    std::string text;
    char chunk[4096];
    for (off_t at = 0; fd_ >= 0;) {
        const ssize_t got = pread(fd_, chunk, sizeof chunk, at);
        if (got <= 0 || text.size() > 65536) break;
        text.append(chunk, static_cast<std::size_t>(got));
        at += got;
    }
    for (std::size_t at; (at = text.find(program + ": ")) != std::string::npos;) text.erase(at, program.size() + 2);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    for (char& c : text)
        if (c == '\n') c = ' ';
    return text;
}

ErrorKind QemuErrorKind(const std::string& said, ErrorKind otherwise) {
    if (said.find("Failed to get") != std::string::npos && said.find("lock") != std::string::npos)
        return ErrorKind::Locked;
    if (said.find("No such file") != std::string::npos) return ErrorKind::NotFound;
    return otherwise;
}

Error RunProgram(const std::vector<std::string>& argv) {
    CapturedStderr captured;
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    if (captured.Fd() >= 0) posix_spawn_file_actions_adddup2(&actions, captured.Fd(), 2);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return FailErrno(ErrorKind::Unsupported, "cannot run " + argv[0], spawned);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {};
    const std::string said = captured.Text(argv[0]);
    return Fail(ErrorKind::Io, argv[0] + " failed" + (said.empty() ? "" : ": " + said));
}

}  // namespace TamvikImage
