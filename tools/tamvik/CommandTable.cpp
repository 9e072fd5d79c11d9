// The subcommands with their help texts.
#include "Commands.h"

namespace TamvikTool {

const std::vector<Command>& AllCommands() {
    static const std::vector<Command> commands = {
        {"info", "facts of the base block, bins, cells and space",
         "usage: tamvik info HIVE\n"
         "Reads the base block and walks the bins and cells of the file: signature,\n"
         "sequence numbers, version, root cell, bins size, checksum, and the counts\n"
         "of bins, keys, values, security cells, used and free space. For a dirty\n"
         "hive, also what each log beside it holds and what tamvik replay would apply.\n",
         RunInfo},
        {"ls", "list the subkeys and values of a key",
         "usage: tamvik ls HIVE [PATH] [-r] [-l] [--json]\n"
         "Lists the subkeys (with a trailing backslash) and the values of the key at\n"
         "PATH (default: the root). PATH is relative to the root: A\\B or \\A\\B.\n"
         "  -r, --recursive   list every key below PATH with its values\n"
         "  -l, --long        show each key's last-write time before it, as stored,\n"
         "                    with the clock it was read on: filetime (Windows writes\n"
         "                    100 ns ticks since 1601) or unix (seconds since 1970,\n"
         "                    which the library writes into the keys it makes)\n"
         "  --json            one JSON object for the key: path, last_write (ISO 8601,\n"
         "                    UTC, or null), clock, subkey_count, value_count, subkeys\n"
         "                    (name, last_write, clock and counts of each) and values\n"
         "                    (name, type, type_number, data as tamvik get prints it,\n"
         "                    or error); with -r an array of such objects, one a key,\n"
         "                    without the subkeys member\n",
         RunLs},
        {"get", "print the data of one value",
         "usage: tamvik get HIVE PATH NAME [--raw] [--type] [--json]\n"
         "Prints a value by its type: strings as text, multi-strings one per line,\n"
         "numbers in decimal, everything else as hex. NAME '' is the default value.\n"
         "  --raw    write the stored bytes unchanged\n"
         "  --type   print the type name before the data\n"
         "  --json   {\"path\", \"name\", \"type\", \"type_number\", \"data\"}, data the\n"
         "           text printed without --json, lines joined by \\n\n",
         RunGet},
        {"export", "write a key and everything below it as a .reg file",
         "usage: tamvik export HIVE [PATH] [--prefix P] [--utf8] [-o FILE]\n"
         "Writes \"Windows Registry Editor Version 5.00\" text, UTF-16LE with a byte\n"
         "order mark by default. Key lines are the prefix followed by the path from\n"
         "the root ([\\A\\B] without a prefix).\n"
         "  --prefix P   e.g. 'HKEY_LOCAL_MACHINE\\SOFTWARE'\n"
         "  --utf8       write UTF-8 text with LF line ends\n"
         "  -o FILE      write to FILE instead of standard output\n",
         RunExport},
        {"import", "merge a .reg file into a hive",
         "usage: tamvik import HIVE FILE.reg [--prefix P] [--windows-order] [--force] [--in-place]\n"
         "Creates keys as needed, creates or replaces values (the default value @,\n"
         "empty data and names in any script included), deletes [-keys] with\n"
         "everything below them and \"values\"=-. Key paths must start with the\n"
         "prefix (default: a backslash, as export writes them). FILE - reads\n"
         "standard input. The whole file is parsed before the hive is opened; an\n"
         "entry that can't be stored is told, and the rest is imported (exit 1).\n"
         "A REGEDIT4 file's hex string data is read as ANSI (code page 1252).\n"
         "  --prefix P        prefix to strip from every key path\n"
         "  --windows-order   put new subkeys, and every list they join, in the\n"
         "                    order Windows keeps (see tamvik check --help)\n"
         "  --force           edit a dirty (status 3) or damaged (5) hive anyway\n"
         "  --in-place        edit the hive itself instead of a copy (see tamvik --help)\n",
         RunImport},
        {"set", "create or replace one value",
         "usage: tamvik set HIVE PATH NAME TYPE VALUE... [--force] [--in-place]\n"
         "       tamvik set HIVE PATH NAME TYPE @FILE|-\n"
         "TYPE: sz, expand_sz, multi_sz, dword, dword_be, qword, binary, none, link,\n"
         "resource_list, full_resource_descriptor, resource_requirements_list, the\n"
         "REG_ names, or a number. Strings take UTF-8 text (multi_sz one argument\n"
         "per string), numbers decimal or 0x hex, other types hex bytes (\"01,ff\",\n"
         "\"\" for none). NAME '' is the default value. The key must exist; a value\n"
         "that exists keeps its place and takes the new type and data.\n"
         "@FILE or - (standard input) gives the data instead: the bytes as they\n"
         "are for the hex types, else the text an argument would hold (one final\n"
         "line break dropped; multi_sz one string a line).\n"
         "  --force      edit a dirty (status 3) or damaged (5) hive anyway\n"
         "  --in-place   edit the hive itself instead of a copy (see tamvik --help)\n",
         RunSet},
        {"mkkey", "create a key and any missing keys above it",
         "usage: tamvik mkkey HIVE PATH [--windows-order] [--force] [--in-place]\n"
         "Fails with 72 (already exists) when the key is there already. A new key\n"
         "joins its parent's list where the library puts it (_stricmp order).\n"
         "  --windows-order   put the lists it joins in the order Windows keeps\n"
         "  --force      edit a dirty (status 3) or damaged (5) hive anyway\n"
         "  --in-place   edit the hive itself instead of a copy (see tamvik --help)\n",
         RunMkkey},
        {"rm", "delete one value",
         "usage: tamvik rm HIVE PATH NAME [--force] [--in-place]\n"
         "NAME '' is the default value.\n"
         "  --force      edit a dirty (status 3) or damaged (5) hive anyway\n"
         "  --in-place   edit the hive itself instead of a copy (see tamvik --help)\n",
         RunRm},
        {"rmkey", "delete a key",
         "usage: tamvik rmkey HIVE PATH [-r] [--force] [--in-place]\n"
         "Deletes the key at PATH, which must have no subkeys unless -r is given.\n"
         "  -r, --recursive   delete the whole subtree, leaves first\n"
         "  --force           edit a dirty (status 3) or damaged (5) hive anyway\n"
         "  --in-place        edit the hive itself instead of a copy (see tamvik --help)\n",
         RunRmkey},
        {"check", "verify the structure of a hive",
         "usage: tamvik check HIVE [-q] [--repair [--force] [--in-place]]\n"
         "Verifies the base block, every bin and cell header and every reference\n"
         "between cells by reading the file, then walks all keys and values through\n"
         "the library. Problems are listed with their offsets (cell offsets are\n"
         "relative to the bins area, file offset = cell offset + 4096). Exit status\n"
         "0 only for a sound hive; warnings don't change it. A dirty hive is a\n"
         "problem; notes tell what its logs hold and what tamvik replay would do.\n"
         "A subkey list out of the order Windows keeps (names upper-cased, then\n"
         "compared unit by unit) is a warning naming its key: Windows looks keys up\n"
         "by binary search and may not find a key out of place. The library puts\n"
         "new keys in _stricmp order, which differs for names with [\\]^_ and\n"
         "letters beyond ASCII.\n"
         "  -q, --quiet   print problems only, no summary\n"
         "  --repair      rewrite those lists in Windows order (the same cells and\n"
         "                hints, nothing else touched), as an edit: locked, on a copy\n"
         "  --force       with --repair: edit a dirty or damaged hive anyway\n"
         "  --in-place    with --repair: edit the hive itself instead of a copy\n",
         RunCheck},
        {"new", "write a new empty hive",
         "usage: tamvik new HIVE [--minor N] [--root-name NAME] [--force]\n"
         "Writes a hive of version 1.N (default 1.5) with one root key and its\n"
         "security cell.\n"
         "  --minor N          minor version, 2 to 6\n"
         "  --root-name NAME   name of the root key (default ROOT), Latin-1\n"
         "  --force            replace an existing file (locked as an edit is)\n",
         RunNew},
        {"replay", "apply the transaction logs of a dirty hive",
         "usage: tamvik replay HIVE [-o OUT] [--log FILE]... [--partial] [--force]\n"
         "A hive is dirty when its two sequence numbers differ or its base block\n"
         "checksum is wrong: its last write did not end, and its latest changes are\n"
         "in the logs beside it (HIVE.LOG, HIVE.LOG1, HIVE.LOG2, in any letter case).\n"
         "Applies them as Windows does when it loads the hive (old-format dirty\n"
         "pages, or new-format entries in sequence order across the logs, each\n"
         "checked by its hashes) and writes a clean hive to OUT; the hive itself is\n"
         "not changed. A hive whose base block is damaged takes the log's copy.\n"
         "Logs written at another time than the hive are not applied. Nothing is\n"
         "written when no log applies or a log is damaged before its end.\n"
         "  -o, --output OUT   where to write (default HIVE.replayed); OUT may be\n"
         "                     HIVE itself only with --force\n"
         "  --log FILE         a log to use instead of those beside the hive; repeat\n"
         "                     for several\n"
         "  --partial          when the logs break off early (a wrong hash, a gap in\n"
         "                     the sequence numbers, a truncated file), write the\n"
         "                     hive with the entries before the break, as Windows would\n"
         "  --force            replace OUT when it exists\n"
         "A clean hive needs nothing: replay says so and writes nothing.\n",
         RunReplay},
    };
    return commands;
}

}  // namespace TamvikTool
