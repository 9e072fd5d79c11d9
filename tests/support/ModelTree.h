// An in-memory model of a tree of keys and values, with the rules by which
// the write functions of RegAPI answer and change a hive. The model test
// applies each random operation both to a hive and to this model, and then
// compares the hive's listing with the model's.
//
// Names in the model are plain ASCII, so a name is stored, read back and
// compared the same way by every reader; names that differ only in case are
// one name.
#pragma once

#include <RegAPI.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace TamvikTest {

struct ModelValue {
    std::string name;
    std::uint32_t type = 0;
    std::vector<std::uint8_t> data;
};

struct ModelKey {
    std::string name;
    ModelKey* parent = nullptr;
    // In stored order: values in the order they were added, subkeys in the
    // order in which the library inserts them into a leaf.
    std::vector<ModelValue> values;
    std::vector<std::unique_ptr<ModelKey>> subkeys;
    // The key's list is an li or an ri, into which nothing can be inserted.
    // Cleared when the last subkey goes, as the next list is a new lf.
    bool listRefusesInserts = false;
};

class ModelTree {
public:
    // rootPath: the listing path of the model's top key ("\\" for a hive's
    // root key, "\\Work" for a key below it).
    ModelTree(std::uint32_t minorVersion, std::string rootPath);

    ModelKey& Root() { return root_; }
    const ModelKey& Root() const { return root_; }
    std::uint32_t MinorVersion() const { return minorVersion_; }

    // Data of this length lies behind a db record: such a value can't grow.
    bool IsBig(std::size_t length) const { return minorVersion_ >= 4 && length >= kBigDataMin; }

    // --- Names ------------------------------------------------------------
    static bool SameName(const std::string& a, const std::string& b);
    // The order of entries in a subkey leaf: bytes compared after folding
    // ASCII upper case to lower case, a prefix first.
    static int LeafOrder(const std::string& a, const std::string& b);
    static ModelKey* FindSubkey(ModelKey& key, const std::string& name);
    static ModelValue* FindValue(ModelKey& key, const std::string& name);

    // --- Operations: the expected result, and the change when it is 0 -------
    // kAnyRefusal stands for a refusal whose number isn't fixed.
    RegAPI::LONG CreateKey(ModelKey& parent, const std::string& name);
    RegAPI::LONG NewValue(ModelKey& key, const std::string& name, std::uint32_t type,
                          const std::vector<std::uint8_t>& data);
    RegAPI::LONG SetValue(ModelKey& key, const std::string& name, std::uint32_t type,
                          const std::vector<std::uint8_t>& data);
    RegAPI::LONG DeleteValue(ModelKey& key, const std::string& name);
    // name: one component below parent.
    RegAPI::LONG DeleteKey(ModelKey& parent, const std::string& name);

    // --- Views ------------------------------------------------------------
    // Every key of the model, the top key first, depth first.
    std::vector<ModelKey*> Keys();
    // Listing path of a key ("\\A\\B"), as support/Listing.h writes it.
    std::string ListingPath(const ModelKey& key) const;
    // Path below the root for RegOpenKeyExW ("" for the root).
    std::u16string HivePath(const ModelKey& key) const;
    // The listing of the model, in the format of support/Listing.h.
    std::vector<std::string> Listing() const;

    static constexpr std::size_t kBigDataMin = 16345;
    static constexpr std::size_t kMaxNameBytes = 65535;
    static constexpr RegAPI::LONG kAnyRefusal = -1;

private:
    void ListKey(const ModelKey& key, const std::string& path, std::vector<std::string>& lines) const;

    std::uint32_t minorVersion_;
    std::string rootPath_;
    ModelKey root_;
};

}  // namespace TamvikTest
