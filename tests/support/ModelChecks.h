// The readers that the edit model test compares with its model: our own walk
// of a subtree through the public functions, and the two peer readers (hivex
// and libregf) run on the closed hive file by tests/model/peer_listing.py.
// All of them give listings in the format of tests/support/ApiListing.h.
#pragma once

#include <RegAPI.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace TamvikTest {

// What RegQueryInfoKeyW tells of one key.
struct KeyCounts {
    RegAPI::DWORD subKeys = 0;
    RegAPI::DWORD maxSubKeyLength = 0;
    RegAPI::DWORD values = 0;
    RegAPI::DWORD maxValueNameLength = 0;
    RegAPI::DWORD maxValueLength = 0;
};

struct SubtreeListing {
    std::vector<std::string> lines;
    // Failed calls, and reads by name that disagree with reads by position.
    std::vector<std::string> problems;
    // By listing path.
    std::map<std::string, KeyCounts> counts;
};

// Walks the key that hivePath names (RegOpenKeyExW from the hive handle) and
// everything below it; listingPath is that key's path in the listing. Every
// key handle of the hive may be dead afterwards.
SubtreeListing ListSubtree(RegAPI::HKEY hive, const std::string& hivePath, const std::string& listingPath);

// A peer's listing: "#error" lines apart from the others.
struct PeerListing {
    int status = -1;
    std::vector<std::string> lines;
    std::vector<std::string> errors;
};

// Runs the script tests/model/peer_listing.py with reader "hivex" or "libregf".
PeerListing RunPeer(const std::string& script, const std::string& reader, const std::string& hiveFile);
// Empty when the system's Python has both peers' modules, else what is missing.
std::string PeersMissing();

// True for a line that belongs to the subtree at rootPath (the key itself,
// its values, everything below it); "#error" lines count by their path.
bool InSubtree(const std::string& line, const std::string& rootPath);
// The lines of a listing in (inside true) or out of the subtree.
std::vector<std::string> FilterSubtree(const std::vector<std::string>& lines, const std::string& rootPath,
                                       bool inside);

// Differences between a value line of the model (expected) and of a peer
// reader (actual, same path, name and type) that come from the reader, not
// from the hive:
// - both hivex and libregf read the last segment of a db value as its cell
//   size minus 8 bytes, so a tight last segment of 8k+1 to 8k+4 bytes comes
//   back 1 to 4 bytes short;
// - libregf gives inline data of 1 to 3 bytes from the high end of the
//   4-byte field instead of its start;
// - libregf pads or cuts the data of string types (1 and 2).
// reader is "hivex" or "libregf".
bool KnownPeerQuirk(const std::string& reader, const std::string& expected, const std::string& actual,
                    std::uint32_t minorVersion);

// Compares two listings line by line; lines for which tolerate() holds are
// counted as tolerated instead of differing. Gives an empty string when they
// agree, else a readable account of the first differences.
template <typename Tolerate>
std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName, Tolerate tolerate, int* tolerated = nullptr);

// The same without tolerance.
std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName);

// Shortens a listing line for a message: long hex data is cut.
std::string ShortLine(const std::string& line);

template <typename Tolerate>
std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName, Tolerate tolerate, int* tolerated) {
    std::string report;
    int differing = 0;
    const std::size_t common = std::min(expected.size(), actual.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (expected[i] == actual[i]) continue;
        if (tolerate(expected[i], actual[i])) {
            if (tolerated != nullptr) ++*tolerated;
            continue;
        }
        if (++differing <= 6) {
            report += "  line " + std::to_string(i + 1) + ":\n    model: " + ShortLine(expected[i]) + "\n    " +
                      actualName + ": " + ShortLine(actual[i]) + "\n";
        }
    }
    if (expected.size() != actual.size()) {
        report += "  model has " + std::to_string(expected.size()) + " lines, " + actualName + " " +
                  std::to_string(actual.size()) + "; first extra line: " +
                  ShortLine(expected.size() > common ? expected[common] : actual[common]) + "\n";
    }
    if (differing > 6) report += "  ... " + std::to_string(differing - 6) + " more differing lines\n";
    return report;
}

}  // namespace TamvikTest
