// The subcommands with their arguments, options and help texts.
#include <algorithm>
#include <cstring>

#include "Commands.h"

namespace TamvikTool {

namespace {

const OptionSpec kForce{"--force", nullptr, nullptr, "edit a dirty (status 3) or damaged (5) hive anyway"};
const OptionSpec kInPlace{"--in-place", nullptr, nullptr, "edit the hive itself instead of a copy (see tamvik --help)"};
const OptionSpec kPrefix{"--prefix", nullptr, "P", "e.g. 'HKEY_LOCAL_MACHINE\\SOFTWARE'"};
const OptionSpec kImage{"--image", nullptr, "IMAGE",
                        "HIVE is a path in the file system of this disk image\n"
                        "(raw, qcow2, vmdk, vhdx, vhd, vdi; see tamvik hives)"};
const OptionSpec kPartition{"--partition", nullptr, "N",
                            "with --image: the partition (default: the one NTFS\n"
                            "partition that holds HIVE)"};
const OptionSpec kOverlay{"--overlay", nullptr, "NEW.qcow2",
                          "with --image: write into this new qcow2 overlay of the\n"
                          "image, which stays as it was (inside an image an edit\n"
                          "is otherwise made in place: there is no copy to rename)"};
const OptionSpec kWindowsOrder{"--windows-order", nullptr, nullptr, "the default: see --library-order"};
const OptionSpec kLibraryOrder{"--library-order", nullptr, nullptr,
                               "put new keys where the library's exported functions\n"
                               "do (_stricmp order), not where Windows looks for them"};

// A reading command's options, then those naming a hive inside an image.
std::vector<OptionSpec> Reading(std::vector<OptionSpec> options) {
    options.insert(options.end(), {kImage, kPartition});
    return options;
}

// An editing command's options, then those naming a hive inside an image.
std::vector<OptionSpec> Editing(std::vector<OptionSpec> options) {
    options.insert(options.end(), {kImage, kPartition, kOverlay});
    return options;
}

std::string Label(const OptionSpec& option) {
    std::string label = option.name;
    if (option.alias != nullptr) label += std::string(", ") + option.alias;
    if (option.value != nullptr) label += std::string(" ") + option.value;
    return label;
}

}  // namespace

const std::vector<Command>& AllCommands() {
    static const std::vector<Command> commands = {
        {"info", "facts of the base block, bins, cells and space", "HIVE", 1, 1, Reading({}),
         "Reads the base block and walks the bins and cells of the file: signature,\n"
         "sequence numbers, version, root cell, bins size, checksum, and the counts\n"
         "of bins, keys, values, security cells, used and free space. For a dirty\n"
         "hive, also what each log beside it holds and what tamvik replay would apply.\n",
         RunInfo},
        {"ls", "list the subkeys and values of a key", "HIVE [PATH]", 1, 2,
         Reading({{"-r", "--recursive", nullptr, "list every key below PATH with its values"},
          {"-l", "--long", nullptr,
           "show each key's last-write time before it, as stored,\n"
           "with the clock it was read on: filetime (Windows writes\n"
           "100 ns ticks since 1601) or unix (seconds since 1970,\n"
           "which the library writes into the keys it makes)"},
          {"--json", nullptr, nullptr,
           "one JSON object for the key: path, last_write (ISO 8601,\n"
           "UTC, or null), clock, subkey_count, value_count, subkeys\n"
           "(name, last_write, clock and counts of each) and values\n"
           "(name, type, type_number, data as tamvik get prints it,\n"
           "or error); with -r an array of such objects, one a key,\n"
           "without the subkeys member"}}),
         "Lists the subkeys (with a trailing backslash) and the values of the key at\n"
         "PATH (default: the root). PATH is relative to the root: A\\B or \\A\\B.\n",
         RunLs},
        {"get", "print the data of one value", "HIVE PATH NAME", 3, 3,
         Reading({{"--raw", nullptr, nullptr, "write the stored bytes unchanged"},
          {"--type", nullptr, nullptr, "print the type name before the data"},
          {"--json", nullptr, nullptr,
           "{\"path\", \"name\", \"type\", \"type_number\", \"data\"}, data the\n"
           "text printed without --json, lines joined by \\n"}}),
         "Prints a value by its type: strings as text, multi-strings one per line,\n"
         "numbers in decimal, everything else as hex. NAME '' is the default value.\n",
         RunGet},
        {"export", "write a key and everything below it as a .reg file", "HIVE [PATH]", 1, 2,
         Reading({kPrefix,
                  {"--utf8", nullptr, nullptr, "write UTF-8 text with LF line ends"},
                  {"-o", "--output", "FILE", "write to FILE instead of standard output"}}),
         "Writes \"Windows Registry Editor Version 5.00\" text, UTF-16LE with a byte\n"
         "order mark by default. Key lines are the prefix followed by the path from\n"
         "the root ([\\A\\B] without a prefix).\n",
         RunExport},
        {"import", "merge a .reg file into a hive", "HIVE FILE.reg", 2, 2,
         Editing({{"--prefix", nullptr, "P", "prefix to strip from every key path"}, kLibraryOrder, kWindowsOrder,
                  kForce, kInPlace}),
         "Creates keys as needed, creates or replaces values (the default value @,\n"
         "empty data and names in any script included), deletes [-keys] with\n"
         "everything below them and \"values\"=-. Key paths must start with the\n"
         "prefix (default: a backslash, as export writes them). FILE - reads\n"
         "standard input. The whole file is parsed before the hive is opened; an\n"
         "entry that can't be stored is told, and the rest is imported (exit 1).\n"
         "A REGEDIT4 file's hex string data is read as ANSI (code page 1252).\n"
         "New keys go where Windows' binary search looks for them, and every list\n"
         "they join is put in the order Windows keeps (see tamvik check --help).\n",
         RunImport},
        {"set", "create or replace one value", "HIVE PATH NAME TYPE VALUE...", 5, -1, Editing({kForce, kInPlace}),
         "TYPE: sz, expand_sz, multi_sz, dword, dword_be, qword, binary, none, link,\n"
         "resource_list, full_resource_descriptor, resource_requirements_list, the\n"
         "REG_ names, or a number. Strings take UTF-8 text (multi_sz one argument\n"
         "per string), numbers decimal or 0x hex, other types hex bytes (\"01,ff\",\n"
         "\"\" for none). NAME '' is the default value. The key must exist; a value\n"
         "that exists keeps its place and takes the new type and data.\n"
         "@FILE or - (standard input) gives the data instead: the bytes as they\n"
         "are for the hex types, else the text an argument would hold (one final\n"
         "line break dropped; multi_sz one string a line).\n",
         RunSet, nullptr, "HIVE PATH NAME TYPE @FILE|-"},
        {"mkkey", "create a key and any missing keys above it", "HIVE PATH", 2, 2,
         Editing({kLibraryOrder, kWindowsOrder, kForce, kInPlace}),
         "Fails with 72 (already exists) when the key is there already. A new key\n"
         "goes where Windows' binary search looks for it, and every list it joins\n"
         "is put in the order Windows keeps (see tamvik check --help).\n",
         RunMkkey},
        {"rm", "delete one value", "HIVE PATH NAME", 3, 3, Editing({kForce, kInPlace}), "NAME '' is the default value.\n",
         RunRm},
        {"rmkey", "delete a key", "HIVE PATH", 2, 2,
         Editing({{"-r", "--recursive", nullptr, "delete the whole subtree, leaves first"}, kForce, kInPlace}),
         "Deletes the key at PATH, which must have no subkeys unless -r is given.\n", RunRmkey},
        {"check", "verify the structure of a hive", "HIVE", 1, 1,
         Editing({{"-q", "--quiet", nullptr, "print problems only, no summary"},
          {"--repair", nullptr, nullptr,
           "rewrite those lists in Windows order (the same cells and\n"
           "hints, nothing else touched), as an edit: locked, on a copy"},
          {"--force", nullptr, nullptr, "with --repair: edit a dirty or damaged hive anyway"},
          {"--in-place", nullptr, nullptr, "with --repair: edit the hive itself instead of a copy"}}),
         "Verifies the base block, every bin and cell header and every reference\n"
         "between cells by reading the file, then walks all keys and values through\n"
         "the library. Problems are listed with their offsets (cell offsets are\n"
         "relative to the bins area, file offset = cell offset + 4096). Exit status\n"
         "0 only for a sound hive; warnings don't change it. A dirty hive is a\n"
         "problem; notes tell what its logs hold and what tamvik replay would do.\n"
         "A subkey list out of the order Windows keeps (names upper-cased, then\n"
         "compared unit by unit) is a warning naming its key: Windows looks keys up\n"
         "by binary search and may not find a key out of place. The library's\n"
         "exported functions put new keys in _stricmp order, which differs for names\n"
         "with [\\]^_ and letters beyond ASCII.\n",
         RunCheck, "[-q] [--repair [--force] [--in-place]] [--image IMAGE [--partition N] [--overlay NEW.qcow2]]"},
        {"new", "write a new empty hive", "HIVE", 1, 1,
         {{"--minor", nullptr, "N", "minor version, 2 to 6"},
          {"--root-name", nullptr, "NAME", "name of the root key (default ROOT), Latin-1"},
          {"--force", nullptr, nullptr, "replace an existing file (locked as an edit is)"}},
         "Writes a hive of version 1.N (default 1.5) with one root key and its\n"
         "security cell.\n",
         RunNew},
        {"replay", "apply the transaction logs of a dirty hive", "HIVE", 1, 1,
         Reading({{"-o", "--output", "OUT",
           "where to write (default HIVE.replayed); OUT may be\n"
           "HIVE itself only with --force; a local file, needed\n"
           "with --image (nothing is written into an image)"},
          {"--log", nullptr, "FILE", "a log to use instead of those beside the hive; repeat\nfor several", true},
          {"--partial", nullptr, nullptr,
           "when the logs break off early (a wrong hash, a gap in\n"
           "the sequence numbers, a truncated file), write the\n"
           "hive with the entries before the break, as Windows would"},
          {"--force", nullptr, nullptr, "replace OUT when it exists"}}),
         "A hive is dirty when its two sequence numbers differ or its base block\n"
         "checksum is wrong: its last write did not end, and its latest changes are\n"
         "in the logs beside it (HIVE.LOG, HIVE.LOG1, HIVE.LOG2, in any letter case).\n"
         "Applies them as Windows does when it loads the hive (old-format dirty\n"
         "pages, or new-format entries in sequence order across the logs, each\n"
         "checked by its hashes) and writes a clean hive to OUT; the hive itself is\n"
         "not changed. A hive whose base block is damaged takes the log's copy.\n"
         "Logs written at another time than the hive are not applied. Nothing is\n"
         "written when no log applies or a log is damaged before its end.\n",
         RunReplay, nullptr, nullptr, "A clean hive needs nothing: replay says so and writes nothing.\n"},
        {"hives", "list a disk image's partitions and the hives on them", "IMAGE", 1, 1,
         {{"--json", nullptr, nullptr,
           "one JSON object: image, format, table, size, warnings,\n"
           "partitions (number, start, size, type, type_id,\n"
           "file_system, label, error, hives: path, size, state,\n"
           "dirty, logs)"}},
         "Lists every partition of the image (number, start and size in bytes, type,\n"
         "file system, label) and, on each NTFS one, the hives in the places Windows\n"
         "keeps them, with their size, their state read from the base block (clean,\n"
         "dirty and why, or not a hive) and the logs beside each. Nothing is written.\n"
         "The other commands take a hive listed here as HIVE with --image IMAGE.\n",
         RunHives},
    };
    return commands;
}

std::string HelpText(const Command& command) {
    std::string usage = std::string("usage: tamvik ") + command.name + " " + command.arguments;
    if (command.usageOptions != nullptr) {
        usage += std::string(" ") + command.usageOptions;
    } else {
        for (const OptionSpec& option : command.options) {
            usage += std::string(" [") + option.name + (option.value != nullptr ? std::string(" ") + option.value : "") + "]";
            if (option.repeats) usage += "...";
        }
    }
    usage += "\n";
    if (command.moreUsage != nullptr) usage += std::string("       tamvik ") + command.name + " " + command.moreUsage + "\n";
    std::string text = usage + command.text;
    std::size_t width = 0;
    for (const OptionSpec& option : command.options) width = std::max(width, Label(option).size());
    const std::string indent(2 + width + 3, ' ');
    for (const OptionSpec& option : command.options) {
        const std::string label = Label(option);
        std::string line = "  " + label + std::string(width + 3 - label.size(), ' ');
        for (const char* help = option.help; *help != 0;) {
            const char* end = std::strchr(help, '\n');
            const std::size_t length = end != nullptr ? static_cast<std::size_t>(end - help) : std::strlen(help);
            line.append(help, length);
            text += line + "\n";
            line = indent;
            help += length + (end != nullptr ? 1 : 0);
        }
        if (*option.help == 0) text += line.substr(0, 2 + label.size()) + "\n";
    }
    if (command.after != nullptr) text += command.after;
    return text;
}

Args ParseCommandArgs(const Command& command, const std::vector<std::string>& argv) {
    return ParseArgs(argv, command.options, command.minPositional, command.maxPositional, command.name);
}

}  // namespace TamvikTool
