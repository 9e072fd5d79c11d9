// hivex and libregf as oracles (see Peers.h).
#include "support/Peers.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace TamvikTest {

namespace {

std::string PathOf(const std::string& line) {
    const std::size_t start = line.find('\t');
    if (start == std::string::npos) return {};
    const std::size_t end = line.find('\t', start + 1);
    return line.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
}

std::string ShortLine(const std::string& line) {
    return line.size() <= 160 ? line : line.substr(0, 140) + "... (" + std::to_string(line.size()) + " chars)";
}

}  // namespace

std::string Quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::pair<int, std::string> Capture(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, output};
    char chunk[65536];
    for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, got);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

PeerListing RunPeer(const std::string& reader, const std::string& hiveFile) {
    PeerListing peer;
    const std::string script = std::string(TAMVIK_SOURCE_DIR) + "/tests/peers/listing.py";
    auto [status, output] = Capture("/usr/bin/python3 " + Quoted(script) + " " + reader + " " + Quoted(hiveFile) + " 2>&1");
    peer.status = status;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
        (line.rfind("K\t", 0) == 0 || line.rfind("V\t", 0) == 0 ? peer.lines : peer.errors).push_back(line);
    return peer;
}

std::string PeersMissing() {
    static const std::string missing = [] {
        std::string why;
        for (const char* module : {"hivex", "pyregf"}) {
            if (Capture(std::string("/usr/bin/python3 -c 'import ") + module + "' 2>/dev/null && echo yes").second != "yes\n")
                why += std::string("python3 lacks the module ") + module + "; ";
        }
        return why;
    }();
    return missing;
}

bool KnownPeerQuirk(const std::string& reader, const std::string& expected, const std::string& actual,
                    std::uint32_t minorVersion) {
    if (expected.rfind("V\t", 0) != 0) return false;
    const std::size_t hexStart = expected.rfind('\t') + 1;
    if (actual.size() < hexStart || actual.compare(0, hexStart, expected, 0, hexStart) != 0) return false;
    if (actual.find('\t', hexStart) != std::string::npos) return false;
    const std::string want = expected.substr(hexStart), got = actual.substr(hexStart);
    const std::size_t length = want.size() / 2;
    const std::size_t typeStart = expected.rfind('\t', hexStart - 2) + 1;
    const std::string type = expected.substr(typeStart, hexStart - 1 - typeStart);
    if (reader == "libregf" && (type == "1" || type == "2")) return true;
    if (reader == "libregf" && length >= 1 && length <= 3)
        return got.size() == want.size() && (length < 3 || got.compare(0, 4, want, 2, 4) == 0);
    if (minorVersion < 4 || length < 16345) return false;
    const std::size_t tail = (length - (length - 1) / 16344 * 16344) % 8;
    return tail >= 1 && tail <= 4 && got.size() < want.size() && length - got.size() / 2 <= tail &&
           want.compare(0, got.size(), got) == 0;
}

std::vector<std::string> FilterSubtree(const std::vector<std::string>& lines, const std::string& rootPath,
                                       bool inside) {
    std::vector<std::string> out;
    for (const std::string& line : lines) {
        const std::string path = PathOf(line);
        const bool in = rootPath == "\\" || path == rootPath || path.rfind(rootPath + "\\", 0) == 0;
        if (in == inside) out.push_back(line);
    }
    return out;
}

std::string CompareListings(const std::vector<std::string>& expected, const std::vector<std::string>& actual,
                            const std::string& actualName, const Tolerance& tolerate, int* tolerated) {
    std::string report;
    int differing = 0;
    const std::size_t common = std::min(expected.size(), actual.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (expected[i] == actual[i]) continue;
        if (tolerate && tolerate(expected[i], actual[i])) {
            if (tolerated != nullptr) ++*tolerated;
        } else if (++differing <= 6) {
            report += "  line " + std::to_string(i + 1) + ":\n    expected: " + ShortLine(expected[i]) + "\n    " +
                      actualName + ": " + ShortLine(actual[i]) + "\n";
        }
    }
    if (expected.size() != actual.size())
        report += "  expected " + std::to_string(expected.size()) + " lines, " + actualName + " " +
                  std::to_string(actual.size()) + "; first extra: " +
                  ShortLine(expected.size() > common ? expected[common] : actual[common]) + "\n";
    if (differing > 6) report += "  ... " + std::to_string(differing - 6) + " more differing lines\n";
    return report;
}

}  // namespace TamvikTest
