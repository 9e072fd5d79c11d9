// The model of keys and values the edit tests compare against (see ModelTree.h).
#include "support/ModelTree.h"

#include <algorithm>

#include "support/Listing.h"

namespace TamvikTest {

using RegAPI::LONG;
namespace Result = RegAPI::Result;

namespace {

char Fold(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool FixedSizeType(std::uint32_t type) { return type == 4 || type == 5 || type == 11; }

}  // namespace

ModelTree::ModelTree(std::uint32_t minorVersion, std::string rootPath)
    : minorVersion_(minorVersion), rootPath_(std::move(rootPath)) {}

bool ModelTree::SameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return Fold(x) == Fold(y);
           });
}

int ModelTree::LeafOrder(const std::string& a, const std::string& b) {
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        const auto x = static_cast<unsigned char>(Fold(a[i]));
        const auto y = static_cast<unsigned char>(Fold(b[i]));
        if (x != y) return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

ModelKey* ModelTree::FindSubkey(ModelKey& key, const std::string& name) {
    for (auto& child : key.subkeys) {
        if (SameName(child->name, name)) return child.get();
    }
    return nullptr;
}

ModelValue* ModelTree::FindValue(ModelKey& key, const std::string& name) {
    for (ModelValue& value : key.values) {
        if (SameName(value.name, name)) return &value;
    }
    return nullptr;
}

LONG ModelTree::CreateKey(ModelKey& parent, const std::string& name) {
    if (name.empty()) return Result::Invalid;
    if (FindSubkey(parent, name) != nullptr) return Result::AlreadyExists;
    if (name.size() > kMaxNameBytes) return kAnyRefusal;
    if (parent.listRefusesInserts && !parent.subkeys.empty()) return Result::CannotCreate;
    // The new entry goes in front of the first entry that sorts behind it.
    auto at = std::find_if(parent.subkeys.begin(), parent.subkeys.end(),
                           [&](const std::unique_ptr<ModelKey>& entry) { return LeafOrder(name, entry->name) < 0; });
    auto key = std::make_unique<ModelKey>();
    key->name = name;
    key->parent = &parent;
    parent.subkeys.insert(at, std::move(key));
    return Result::Ok;
}

LONG ModelTree::NewValue(ModelKey& key, const std::string& name, std::uint32_t type,
                         const std::vector<std::uint8_t>& data) {
    if (data.empty()) return Result::Invalid;
    if (FindValue(key, name) != nullptr) return Result::AlreadyExists;
    if (name.empty() || name.size() > kMaxNameBytes) return Result::Invalid;
    key.values.push_back(ModelValue{name, type, data});
    return Result::Ok;
}

LONG ModelTree::SetValue(ModelKey& key, const std::string& name, std::uint32_t type,
                         const std::vector<std::uint8_t>& data) {
    if (data.empty() || key.values.empty()) return Result::Invalid;
    ModelValue* value = FindValue(key, name);
    if (value == nullptr || value->type != type) return Result::Invalid;
    if (FixedSizeType(type) && data.size() != value->data.size()) return Result::Invalid;
    // Segmented data is rewritten in place and can't take more segments.
    if (IsBig(value->data.size()) && data.size() > value->data.size()) return Result::Invalid;
    value->data = data;
    return Result::Ok;
}

LONG ModelTree::DeleteValue(ModelKey& key, const std::string& name) {
    auto it = std::find_if(key.values.begin(), key.values.end(),
                           [&](const ModelValue& value) { return SameName(value.name, name); });
    if (it == key.values.end()) return Result::Invalid;
    key.values.erase(it);
    return Result::Ok;
}

LONG ModelTree::DeleteKey(ModelKey& parent, const std::string& name) {
    auto it = std::find_if(parent.subkeys.begin(), parent.subkeys.end(),
                           [&](const std::unique_ptr<ModelKey>& entry) { return SameName(entry->name, name); });
    if (it == parent.subkeys.end() || !(*it)->subkeys.empty()) return Result::Invalid;
    parent.subkeys.erase(it);
    if (parent.subkeys.empty()) parent.listRefusesInserts = false;
    return Result::Ok;
}

std::vector<ModelKey*> ModelTree::Keys() {
    std::vector<ModelKey*> keys{&root_};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        for (auto& child : keys[i]->subkeys) keys.push_back(child.get());
    }
    return keys;
}

std::string ModelTree::ListingPath(const ModelKey& key) const {
    if (key.parent == nullptr) return rootPath_;
    const std::string parent = ListingPath(*key.parent);
    return (parent == "\\" ? parent : parent + "\\") + EscapeName(Utf16(key.name));
}

std::u16string ModelTree::HivePath(const ModelKey& key) const {
    const std::string path = ListingPath(key);
    return Utf16(path == "\\" ? "" : path.substr(1));
}

std::vector<std::string> ModelTree::Listing() const {
    std::vector<std::string> lines;
    ListKey(root_, rootPath_, lines);
    return lines;
}

void ModelTree::ListKey(const ModelKey& key, const std::string& path, std::vector<std::string>& lines) const {
    lines.push_back("K\t" + path);
    for (const ModelValue& value : key.values) {
        lines.push_back("V\t" + path + "\t" + EscapeName(Utf16(value.name)) + "\t" + std::to_string(value.type) +
                        "\t" + HexBytes(value.data));
    }
    for (const auto& child : key.subkeys) {
        ListKey(*child, (path == "\\" ? path : path + "\\") + EscapeName(Utf16(child->name)), lines);
    }
}

}  // namespace TamvikTest
