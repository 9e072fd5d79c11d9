#include "Session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "HiveFile.h"
#include "Text.h"

namespace TamvikTool {

using namespace RegAPI;

std::string ResultMeaning(LONG result) {
    switch (result) {
        case 0: return "ok";
        case 5: return "hive refused";
        case 57: return "can't create subkey";
        case 72: return "already exists";
        case 87: return "invalid argument or not found";
        case 234: return "more data or unreadable data";
        case 1015: return "corrupt hive structure";
        default: return "unknown result";
    }
}

std::string DescribeResult(LONG result) {
    return "(" + ResultMeaning(result) + ", result " + std::to_string(result) + ")";
}

void UsageError(const std::string& message) { throw ToolError(message, kExitUsage); }

KeyPath SplitKeyPath(const std::u16string& text) {
    KeyPath out;
    std::u16string_view rest(text);
    if (!rest.empty() && rest.front() == u'\\') rest.remove_prefix(1);
    if (rest.empty()) return out;
    while (true) {
        std::size_t cut = rest.find(u'\\');
        out.emplace_back(rest.substr(0, cut));
        if (cut == std::u16string_view::npos) break;
        rest.remove_prefix(cut + 1);
    }
    return out;
}

KeyPath ParseKeyPath(const std::string& text) {
    std::optional<std::u16string> wide = FromUtf8(text);
    if (!wide) UsageError("key path is not valid UTF-8: " + text);
    return SplitKeyPath(*wide);
}

std::u16string JoinPath(const KeyPath& path) {
    std::u16string out;
    for (const auto& part : path) out += u'\\' + part;
    return out.empty() ? u"\\" : out;
}

std::string ShowPath(const KeyPath& path) { return ToDisplay(JoinPath(path)); }

HiveSession::HiveSession(const std::string& path, bool readOnly, const std::string& shownAs)
    : path_(shownAs.empty() ? path : shownAs) {
    // Test the file first: the library answers a missing or unreadable file
    // with 87 only, and errno says more.
    int fd = ::open(path.c_str(), readOnly ? O_RDONLY : O_RDWR);
    if (fd < 0) throw ToolError(path_ + ": can't open (" + std::strerror(errno) + ")");
    std::u16string wide;
    bool ascii = true;
    for (char c : path) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
    if (ascii) {
        ::close(fd);
        wide = FromLatin1(path);
    } else {
        // The library converts file names to code page 936, which would not
        // reach a UTF-8 name: give it the descriptor's ASCII alias instead.
        fd_ = fd;
        wide = FromLatin1("/proc/self/fd/" + std::to_string(fd));
    }
    LONG result = OpenHiveW(wide.c_str(), &hive_, readOnly);
    if (result != Result::Ok) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        hive_ = nullptr;
        // The library gives one number for every refusal; the file tells why.
        const std::string why = WhyNotAHive(path);
        throw ToolError(path_ + ": can't open as a hive " + (why.empty() ? DescribeResult(result) : "(" + why + ")"));
    }
}

HiveSession::~HiveSession() {
    if (hive_ != nullptr) CloseHive(&hive_);
    if (fd_ >= 0) ::close(fd_);
}

HKEY HiveSession::Root() {
    HKEY root = nullptr;
    LONG result = RegOpenKeyExW(hive_, u"", 0, 0, &root);
    if (result != Result::Ok) throw ToolError(path_ + ": root key unreadable " + DescribeResult(result));
    return root;
}

LONG HiveSession::TryOpen(const KeyPath& path, HKEY* handle) {
    HKEY current = nullptr;
    LONG result = RegOpenKeyExW(hive_, u"", 0, 0, &current);
    for (std::size_t i = 0; result == Result::Ok && i < path.size(); ++i) {
        // A component holding a NUL or a backslash can't be passed as a path.
        if (path[i].find(u'\0') != std::u16string::npos || path[i].find(u'\\') != std::u16string::npos)
            return Result::Invalid;
        HKEY next = nullptr;
        result = RegOpenKeyExW(current, path[i].c_str(), 0, 0, &next);
        current = next;
    }
    if (result == Result::Ok) *handle = current;
    return result;
}

HKEY HiveSession::Open(const KeyPath& path) {
    HKEY handle = nullptr;
    LONG result = TryOpen(path, &handle);
    if (result != Result::Ok)
        throw ToolError(path_ + ": key " + ShowPath(path) + ": can't open " + DescribeResult(result));
    return handle;
}

}  // namespace TamvikTool
