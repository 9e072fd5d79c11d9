// regwalk: prints the tree of a hive with its values, using only the public
// header. Usage: regwalk HIVE [MAX_DEPTH]
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "RegAPI.h"

using namespace RegAPI;

namespace {

std::string Utf8(const std::u16string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::uint32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u16string Widen(const char* text) {
    std::u16string out;
    for (; *text; ++text) out += static_cast<char16_t>(static_cast<unsigned char>(*text));
    return out;
}

// Printable text of a value's data, by its type.
std::string Describe(DWORD type, const std::vector<BYTE>& data) {
    auto wideText = [&](std::size_t from, std::size_t to) {
        std::u16string text;
        for (std::size_t i = from; i + 1 < to; i += 2) {
            char16_t unit = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
            if (unit == 0) break;
            text += unit;
        }
        return Utf8(text);
    };
    char buffer[64];
    switch (type) {
        case 1:
        case 2:
            return (type == 2 ? "expand:\"" : "\"") + wideText(0, data.size()) + "\"";
        case 4:
            if (data.size() == 4) {
                std::snprintf(buffer, sizeof buffer, "dword:0x%08x", data[0] | (data[1] << 8) | (data[2] << 16) |
                                                                         (static_cast<std::uint32_t>(data[3]) << 24));
                return buffer;
            }
            break;
        case 11:
            if (data.size() == 8) {
                std::uint64_t v = 0;
                for (int i = 7; i >= 0; --i) v = (v << 8) | data[i];
                std::snprintf(buffer, sizeof buffer, "qword:0x%016llx", static_cast<unsigned long long>(v));
                return buffer;
            }
            break;
        case 7: {
            std::string out = "multi:[";
            std::size_t start = 0;
            bool first = true;
            for (std::size_t i = 0; i + 1 < data.size(); i += 2) {
                if (data[i] == 0 && data[i + 1] == 0) {
                    if (i == start) break;
                    out += (first ? "\"" : ", \"") + wideText(start, i + 2) + "\"";
                    first = false;
                    start = i + 2;
                }
            }
            return out + "]";
        }
        default:
            break;
    }
    std::snprintf(buffer, sizeof buffer, "type%u:", type);
    std::string out = buffer;
    for (std::size_t i = 0; i < data.size() && i < 32; ++i) {
        std::snprintf(buffer, sizeof buffer, "%02x", data[i]);
        out += buffer;
    }
    if (data.size() > 32) out += "... (" + std::to_string(data.size()) + " bytes)";
    return out;
}

void PrintValues(HKEY key, int depth) {
    DWORD count = 0, maxName = 0;
    if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count, &maxName, nullptr, nullptr,
                         nullptr) != Result::Ok)
        return;
    std::string indent(static_cast<std::size_t>(depth) * 2 + 2, ' ');
    for (DWORD i = 0; i < count; ++i) {
        std::vector<WCHAR> name(maxName + 2);
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD type = 0, size = 0;
        LONG result = RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, nullptr, &size);
        if (result == Result::Invalid) {
            // The stored maximum can be stale: ask again with room for any name.
            name.assign(65537, 0);
            nameLength = static_cast<DWORD>(name.size());
            result = RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, nullptr, &size);
        }
        if (result != Result::Ok) {
            std::printf("%s<value %u unreadable: %d>\n", indent.c_str(), i, result);
            continue;
        }
        std::vector<BYTE> data(size);
        DWORD got = size;
        nameLength = static_cast<DWORD>(name.size());
        result = RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, data.data(), &got);
        std::u16string valueName(name.data(), nameLength);
        std::string shown = "@";
        if (!valueName.empty()) {
            shown = "\"";
            shown += Utf8(valueName);
            shown += '"';
        }
        if (result != Result::Ok)
            std::printf("%s%s = <data unreadable: %d>\n", indent.c_str(), shown.c_str(), result);
        else
            std::printf("%s%s = %s\n", indent.c_str(), shown.c_str(), Describe(type, data).c_str());
    }
}

// Depth first, one handle per level: each level opens its subkeys by name in turn.
void Walk(HKEY key, const std::u16string& name, int depth, int maxDepth) {
    std::printf("%s[%s]\n", std::string(static_cast<std::size_t>(depth) * 2, ' ').c_str(), Utf8(name).c_str());
    PrintValues(key, depth);
    if (depth >= maxDepth) return;
    DWORD subKeys = 0, maxName = 0;
    RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subKeys, &maxName, nullptr, nullptr, nullptr, nullptr, nullptr,
                     nullptr);
    std::vector<WCHAR> child(static_cast<std::size_t>(maxName) + 2);
    for (DWORD i = 0; i < subKeys; ++i) {
        DWORD length = static_cast<DWORD>(child.size());
        LONG result = RegEnumKeyExW(key, i, child.data(), &length, nullptr, nullptr, nullptr, nullptr);
        if (result == Result::Invalid && child.size() < 65537) {
            // The stored maximum can be stale: ask again with room for any name.
            child.assign(65537, 0);
            length = static_cast<DWORD>(child.size());
            result = RegEnumKeyExW(key, i, child.data(), &length, nullptr, nullptr, nullptr, nullptr);
        }
        if (result != Result::Ok) continue;
        std::u16string childName(child.data(), length);
        HKEY sub = nullptr;
        // A name holding a backslash can't be reached by path.
        if (childName.find(u'\\') != std::u16string::npos ||
            RegOpenKeyExW(key, childName.c_str(), 0, 0, &sub) != Result::Ok) {
            std::printf("%s[%s] (not reachable by name)\n", std::string(static_cast<std::size_t>(depth + 1) * 2, ' ').c_str(),
                        Utf8(childName).c_str());
            continue;
        }
        Walk(sub, childName, depth + 1, maxDepth);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s HIVE [MAX_DEPTH]\n", argv[0]);
        return 2;
    }
    int maxDepth = argc > 2 ? std::atoi(argv[2]) : 512;
    HKEY hive = nullptr;
    LONG result = OpenHiveW(Widen(argv[1]).c_str(), &hive, true);
    if (result != Result::Ok) {
        std::fprintf(stderr, "%s: can't open hive (result %d)\n", argv[1], result);
        return 1;
    }
    HKEY root = nullptr;
    if (RegOpenKeyExW(hive, u"", 0, 0, &root) != Result::Ok) {
        std::fprintf(stderr, "%s: root key unreadable\n", argv[1]);
        CloseHive(&hive);
        return 1;
    }
    Walk(root, u"", 0, maxDepth);
    CloseHive(&hive);
    return 0;
}
