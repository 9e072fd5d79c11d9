// tamvik: look into an offline registry hive and change it from a shell.
// Dispatches to the subcommand named by the first argument.
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "Commands.h"
#include "ToolError.h"

using namespace TamvikTool;

namespace {

void PrintOverview(std::FILE* out) {
    std::fprintf(out,
                 "usage: tamvik COMMAND [ARGS]   (tamvik COMMAND --help for details; tamvik --version)\n\n"
                 "commands:\n");
    for (const Command& c : AllCommands()) std::fprintf(out, "  %-8s %s\n", c.name, c.summary);
    std::fprintf(out,
                 "\nEditing commands (import, set, mkkey, rm, rmkey, check --repair) lock the hive\n"
                 "(flock on the file itself), work on a copy beside it (HIVE.tmp-XXXXXX), flush it\n"
                 "to disk and rename it over the hive: interrupted at any moment, the hive is the\n"
                 "old one or the new one (a kill -9 may leave the copy behind; delete it). With\n"
                 "--in-place they edit the hive itself, for hives too large to copy: an\n"
                 "interruption then leaves a half-made edit.\n"
                 "\nWith --image IMAGE, HIVE is a path inside the disk image's NTFS file system\n"
                 "(tamvik hives IMAGE lists them). Reading opens the image read-only. An edit\n"
                 "locks the image and is made in place, write by write: there is no copy to\n"
                 "rename, so an interruption leaves a half-made edit; --overlay NEW.qcow2\n"
                 "writes into a new overlay instead and leaves the image as it was.\n"
                 "\nexit status: 0 done, 1 failed (or check found problems), 2 bad arguments,\n"
                 "3 an editing command refused a dirty hive (see tamvik replay --help),\n"
                 "4 the hive or image is locked by another process, 5 an editing command\n"
                 "refused a damaged hive, 6 an editing command refused a volume Windows left\n"
                 "hibernated, suspended by fast startup or unclean\n");
}

bool WantsHelp(const std::vector<std::string>& args) {
    for (const std::string& a : args) {
        if (a == "--") return false;
        if (a == "--help" || a == "-h") return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintOverview(stderr);
        return kExitUsage;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        PrintOverview(stdout);
        return kExitOk;
    }
    if (name == "--version") {
        std::printf("tamvik %s\n", TAMVIK_VERSION);
        return kExitOk;
    }
    for (const Command& command : AllCommands()) {
        if (name != command.name) continue;
        const std::vector<std::string> args(argv + 2, argv + argc);
        if (WantsHelp(args)) {
            std::fputs(HelpText(command).c_str(), stdout);
            return kExitOk;
        }
        try {
            return command.run(ParseCommandArgs(command, args));
        } catch (const ToolError& e) {
            std::fprintf(stderr, "tamvik %s: %s\n", command.name, e.what());
            return e.Status();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "tamvik %s: %s\n", command.name, e.what());
            return kExitFailed;
        }
    }
    std::fprintf(stderr, "tamvik: unknown command '%s'\n", name.c_str());
    PrintOverview(stderr);
    return kExitUsage;
}
