#include "support/ModelChecks.h"

#include <sys/wait.h>

#include <cstdio>
#include <sstream>

#include "support/ApiListing.h"
#include "support/Shell.h"

namespace TamvikTest {

using namespace RegAPI;

namespace {

constexpr const char* kPython = "/usr/bin/python3";

// Room for the longest name a record can hold, plus the terminator.
constexpr DWORD kNameRoom = 65536 + 1;

std::u16string WidenAscii(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// One value as one read delivered it.
struct ValueRead {
    DWORD type = 0;
    std::vector<std::uint8_t> data;
};

// The walk below one key: one handle per level, children opened by name from
// their parent, so that opening a sibling ends only a walk that is done.
class SubtreeWalker {
public:
    explicit SubtreeWalker(SubtreeListing& out) : out_(out), name_(kNameRoom) {}

    void Walk(HKEY key, const std::string& path) {
        out_.lines.push_back("K\t" + path);
        KeyCounts counts;
        LONG rc = RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &counts.subKeys, &counts.maxSubKeyLength, nullptr,
                                   &counts.values, &counts.maxValueNameLength, &counts.maxValueLength, nullptr,
                                   nullptr);
        if (rc != Result::Ok) return Problem(path, "RegQueryInfoKeyW gave " + std::to_string(rc));
        out_.counts[path] = counts;
        for (DWORD index = 0; index < counts.values; ++index) ListValue(key, path, index);
        for (DWORD index = 0; index < counts.subKeys; ++index) {
            DWORD length = kNameRoom;
            rc = RegEnumKeyExW(key, index, name_.data(), &length, nullptr, nullptr, nullptr, nullptr);
            if (rc != Result::Ok) {
                Problem(path, "RegEnumKeyExW #" + std::to_string(index) + " gave " + std::to_string(rc));
                continue;
            }
            const std::u16string name(name_.data(), length);
            const std::string childPath = (path == "\\" ? path : path + "\\") + EscapeName(name);
            HKEY child = nullptr;
            rc = RegOpenKeyExW(key, name.c_str(), 0, 0, &child);
            if (rc != Result::Ok) {
                out_.lines.push_back("K\t" + childPath);
                Problem(childPath, "RegOpenKeyExW by its enumerated name gave " + std::to_string(rc));
                continue;
            }
            Walk(child, childPath);
        }
    }

private:
    void Problem(const std::string& path, const std::string& what) { out_.problems.push_back(path + ": " + what); }

    // By position (size first, then the bytes), and again by name.
    void ListValue(HKEY key, const std::string& path, DWORD index) {
        DWORD length = kNameRoom;
        DWORD size = 0;
        ValueRead byPosition;
        LONG rc = RegEnumValueW(key, index, name_.data(), &length, nullptr, &byPosition.type, nullptr, &size);
        if (rc != Result::Ok) {
            return Problem(path, "RegEnumValueW #" + std::to_string(index) + " size query gave " + std::to_string(rc));
        }
        const std::u16string name(name_.data(), length);
        byPosition.data.assign(size, 0);
        if (size != 0) {
            length = kNameRoom;
            DWORD capacity = size;
            rc = RegEnumValueW(key, index, name_.data(), &length, nullptr, nullptr, byPosition.data.data(), &capacity);
            if (rc != Result::Ok || capacity != size) {
                return Problem(path, "RegEnumValueW #" + std::to_string(index) + " read of " + std::to_string(size) +
                                         " bytes gave " + std::to_string(rc));
            }
        }
        out_.lines.push_back("V\t" + path + "\t" + EscapeName(name) + "\t" + std::to_string(byPosition.type) + "\t" +
                             HexBytes(byPosition.data));

        ValueRead byName;
        DWORD nameSize = 0;
        rc = RegQueryValueExW(key, name.c_str(), nullptr, &byName.type, nullptr, &nameSize);
        if (rc == Result::Ok && nameSize != 0) {
            byName.data.assign(nameSize, 0);
            DWORD capacity = nameSize;
            rc = RegQueryValueExW(key, name.c_str(), nullptr, nullptr, byName.data.data(), &capacity);
        }
        if (rc != Result::Ok) {
            Problem(path, "RegQueryValueExW of " + EscapeName(name) + " gave " + std::to_string(rc));
        } else if (byName.type != byPosition.type || byName.data != byPosition.data) {
            Problem(path, "value " + EscapeName(name) + ": read by name differs from read by position");
        }
    }

    SubtreeListing& out_;
    std::vector<WCHAR> name_;
};

// The path field of a listing line ("K", "V" or "#error" first).
std::string PathOf(const std::string& line) {
    const std::size_t start = line.find('\t');
    if (start == std::string::npos) return {};
    const std::size_t end = line.find('\t', start + 1);
    return line.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
}

}  // namespace

SubtreeListing ListSubtree(HKEY hive, const std::string& hivePath, const std::string& listingPath) {
    SubtreeListing out;
    HKEY top = nullptr;
    const LONG rc = RegOpenKeyExW(hive, WidenAscii(hivePath).c_str(), 0, 0, &top);
    if (rc != Result::Ok) {
        out.problems.push_back(listingPath + ": RegOpenKeyExW gave " + std::to_string(rc));
        return out;
    }
    SubtreeWalker(out).Walk(top, listingPath);
    return out;
}

PeerListing RunPeer(const std::string& script, const std::string& reader, const std::string& hiveFile) {
    PeerListing peer;
    auto [status, output] =
        Capture(std::string(kPython) + " " + Quoted(script) + " " + reader + " " + Quoted(hiveFile) + " 2>&1");
    peer.status = status;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        (line.rfind("#error", 0) == 0 || (line.rfind("K\t", 0) != 0 && line.rfind("V\t", 0) != 0) ? peer.errors
                                                                                                   : peer.lines)
            .push_back(line);
    }
    return peer;
}

std::string PeersMissing() {
    static const std::string missing = [] {
        std::string why;
        for (const char* module : {"hivex", "pyregf"}) {
            const std::string command =
                std::string(kPython) + " -c 'import " + module + "' >/dev/null 2>&1 && echo yes";
            if (Capture(command).second != "yes\n") why += std::string(kPython) + " lacks the module " + module + "; ";
        }
        return why;
    }();
    return missing;
}

bool InSubtree(const std::string& line, const std::string& rootPath) {
    const std::string path = PathOf(line);
    if (rootPath == "\\") return true;
    return path == rootPath || path.rfind(rootPath + "\\", 0) == 0;
}

std::vector<std::string> FilterSubtree(const std::vector<std::string>& lines, const std::string& rootPath,
                                       bool inside) {
    std::vector<std::string> out;
    for (const std::string& line : lines) {
        if (InSubtree(line, rootPath) == inside) out.push_back(line);
    }
    return out;
}

bool KnownPeerQuirk(const std::string& reader, const std::string& expected, const std::string& actual,
                    std::uint32_t minorVersion) {
    if (expected.rfind("V\t", 0) != 0) return false;
    const std::size_t hexStart = expected.rfind('\t') + 1;
    if (actual.size() < hexStart || actual.compare(0, hexStart, expected, 0, hexStart) != 0) return false;
    if (actual.find('\t', hexStart) != std::string::npos) return false;
    const std::string want = expected.substr(hexStart);
    const std::string got = actual.substr(hexStart);
    const std::size_t length = want.size() / 2;

    // The type is the field in front of the data.
    const std::size_t typeStart = expected.rfind('\t', hexStart - 2) + 1;
    const std::string type = expected.substr(typeStart, hexStart - 1 - typeStart);
    if (reader == "libregf" && (type == "1" || type == "2")) return true;
    if (reader == "libregf" && length >= 1 && length <= 3) {
        // Only the bytes that the field shares in both readings can be compared.
        return got.size() == want.size() && (length < 3 || got.compare(0, 4, want, 2, 4) == 0);
    }

    // A short read of a tight last segment of a db value.
    if (minorVersion < 4 || length < 16345) return false;
    const std::size_t lastSegment = length - (length - 1) / 16344 * 16344;
    const std::size_t tail = lastSegment % 8;
    const std::size_t short_by = length - got.size() / 2;
    return tail >= 1 && tail <= 4 && got.size() < want.size() && short_by <= tail &&
           want.compare(0, got.size(), got) == 0;
}

std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName) {
    return CompareListings(expected, actual, actualName, [](const std::string&, const std::string&) { return false; });
}

std::string ShortLine(const std::string& line) {
    if (line.size() <= 160) return line;
    return line.substr(0, 140) + "... (" + std::to_string(line.size()) + " chars)";
}

}  // namespace TamvikTest
