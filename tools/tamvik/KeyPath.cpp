#include "KeyPath.h"

#include <optional>
#include <string_view>

#include "Text.h"
#include "ToolError.h"

namespace TamvikTool {

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

std::u16string ParsePrefix(const std::string& text) {
    std::optional<std::u16string> prefix = FromUtf8(text);
    if (!prefix) UsageError("prefix is not valid UTF-8");
    while (!prefix->empty() && prefix->back() == u'\\') prefix->pop_back();
    return *prefix;
}

std::string ShowPath(const KeyPath& path) { return ToDisplay(JoinPath(path)); }

}  // namespace TamvikTool
