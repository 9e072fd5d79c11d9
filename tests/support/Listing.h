// A normalised listing of a hive (or of one key's subtree) made through the
// public functions only, to compare with a model, with the peers' listings
// (tests/peers/listing.py writes the same format) and with itself over time.
//
//     K <TAB> path [<TAB> SKIP]
//     V <TAB> path <TAB> name <TAB> type <TAB> hex of the data
//
// Depth first in stored list order. The root's path is "\", a subkey's path
// its parent's, a backslash (none after the root) and its name. Names are
// UTF-8; code points below 0x20 and from 0x7F to 0x9F, '%' and '\' become %XX,
// a lone surrogate %uXXXX. A key whose name holds a backslash or a NUL can't
// be opened by name: it gets SKIP and nothing below it is listed.
#pragma once

#include <RegAPI.h>

#include <map>
#include <string>
#include <vector>

#include "support/Files.h"

namespace TamvikTest {

// What RegQueryInfoKeyW tells of a key.
struct KeyCounts {
    RegAPI::DWORD subKeys = 0, maxSubKeyLength = 0, values = 0, maxValueNameLength = 0, maxValueLength = 0;
};

struct Listing {
    bool opened = false;
    std::vector<std::string> lines;
    // Failed calls, and values whose read by name differs from their read by position.
    std::vector<std::string> problems;
    std::map<std::string, KeyCounts> counts;  // by listing path
};

// Lists the key that hivePath names from the hive handle ("" is the root) and
// everything below it; listingPath is that key's path in the listing. Every
// key handle of the hive may be dead afterwards.
Listing ListKey(RegAPI::HKEY hive, const std::u16string& hivePath = u"", const std::string& listingPath = "\\");
// Opens the file read-only, lists the whole hive and closes it.
Listing ListFile(const std::string& path);

std::string EscapeName(const std::u16string& name);
std::string HexBytes(const Bytes& bytes);
// UTF-8 and UTF-16 for names and paths (a bad UTF-8 sequence is taken byte by byte).
std::u16string Utf16(const std::string& utf8);
std::string Utf8(const std::u16string& utf16);

}  // namespace TamvikTest
