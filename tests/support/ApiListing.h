// A normalised listing of a whole hive, produced through the public RegAPI
// functions only, so that it can be compared with other readers' listings and
// with listings taken before and after an edit.
//
// Format, one line per key and per value, depth first in stored list order:
//
//     K <TAB> path [<TAB> SKIP]
//     V <TAB> path <TAB> name <TAB> type <TAB> hex of the data
//
// The root key's path is "\", a subkey's path its parent's path, a backslash
// (none after the root) and its own name. Names are UTF-8; code points below
// 0x20 and from 0x7F to 0x9F, '%' and '\' become %XX, a lone UTF-16 surrogate
// %uXXXX. A key whose name holds a backslash or a NUL can't be opened by name,
// so it gets the SKIP marker and nothing below it is listed.
// tests/interop/hivex_listing.py writes the same format from hivex.
#pragma once

#include <RegAPI.h>

#include <string>
#include <vector>

namespace TamvikTest {

struct ApiListing {
    // False when the hive couldn't be opened; lines and problems are then empty
    // except for one problem saying why.
    bool opened = false;
    std::vector<std::string> lines;
    // Every call that failed during the walk, and every value whose read by
    // name disagreed with its read by position. Empty for a sound hive.
    std::vector<std::string> problems;
};

// Opens the hive file read-only with OpenHiveW, lists it and closes it again.
ApiListing ListHiveFile(const std::string& path);

// Lists a hive that the caller has opened (a file or a volume hive) and keeps
// open. Walks from the root key, opening one key per level at a time; every
// key handle taken from the hive before the call may be dead afterwards.
ApiListing ListOpenHive(RegAPI::HKEY hive);

// The escaped UTF-8 form of a UTF-16 name, as used in the listing.
std::string EscapeName(const std::u16string& name);

// Lower-case hex digits of the bytes, two per byte.
std::string HexBytes(const std::vector<std::uint8_t>& bytes);

}  // namespace TamvikTest
