// Other programs as oracles: a shell runner, and the peer readers hivex and
// libregf listing a hive file through tests/peers/listing.py in the format of
// support/Listing.h.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace TamvikTest {

// text in single quotes, one shell word.
std::string Quoted(const std::string& text);
// The whole stdout of a shell command and its exit status (-1 if it didn't end normally).
std::pair<int, std::string> Capture(const std::string& command);

struct PeerListing {
    int status = -1;
    std::vector<std::string> lines;
    std::vector<std::string> errors;  // "#error" lines and anything else that isn't a K or V line
};

// reader: "hivex" or "libregf".
PeerListing RunPeer(const std::string& reader, const std::string& hiveFile);
// Empty when python3 has both peers' modules, else what is missing.
std::string PeersMissing();

// Differences between our reading (expected) and a peer's (actual) that come
// from the reader, not the hive: hivex and libregf read the last segment of a
// db value as its cell size minus 8 bytes, so a tight last segment comes back
// 1 to 4 bytes short; libregf gives inline data of 1 to 3 bytes from the high
// end of the field, and pads or cuts string data.
bool KnownPeerQuirk(const std::string& reader, const std::string& expected, const std::string& actual,
                    std::uint32_t minorVersion);

// The lines of a listing inside (or outside) the subtree at rootPath.
std::vector<std::string> FilterSubtree(const std::vector<std::string>& lines, const std::string& rootPath,
                                       bool inside);

// Empty when the listings agree (lines for which tolerate holds count as
// agreeing), else a readable account of the first differences.
using Tolerance = std::function<bool(const std::string& expected, const std::string& actual)>;
std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName, const Tolerance& tolerate = {}, int* tolerated = nullptr);

}  // namespace TamvikTest
