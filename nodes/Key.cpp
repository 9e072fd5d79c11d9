#include "nodes/Key.h"

#include "nodes/MakeNode.h"
#include "nodes/SubKeyList.h"
#include "nodes/Val.h"
#include "store/Hive.h"

namespace Tamvik {

Key::Key(std::uint32_t offset_, Node* parent_, std::unique_ptr<std::uint8_t[]> buffer_, std::uint32_t bufferSize_,
         std::uint32_t payloadOffset)
    : Node(offset_, parent_, std::move(buffer_), bufferSize_),
      record(PayloadOf(buffer.get(), bufferSize_, payloadOffset)) {}

Key::~Key() {
    // The cache chain can be thousands of keys deep: take it apart in a loop
    // rather than by nested destructors, so that the stack stays flat.
    std::unique_ptr<SubKeyList> list = std::move(subKeyList);
    while (list != nullptr) {
        std::unique_ptr<Key> below = std::move(list->child);
        list.reset();
        if (below == nullptr) break;
        list = std::move(below->subKeyList);
    }
    valueList.reset();
}

WString RecordName(const RecordRef& record, std::uint32_t lengthField, std::uint32_t nameField, bool narrow) {
    std::uint32_t length = record.U16(lengthField);
    std::uint32_t available = record.Available(nameField);
    if (length > available) length = available;
    const std::uint8_t* bytes = record.Data() + nameField;
    WString name;
    if (narrow) {
        name.resize(length);
        for (std::uint32_t i = 0; i < length; ++i) name[i] = bytes[i];
    } else {
        name.resize(length / 2);
        for (std::uint32_t i = 0; i < length / 2; ++i)
            name[i] = static_cast<char16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    return name;
}

WString Key::GetName() const {
    bool narrow = (record.U16(NkField::Flags) & NkField::NarrowNameFlag) != 0;
    return RecordName(record, NkField::NameLength, NkField::Name, narrow);
}

Node* Key::FindChild(Hive* hive, const char16_t* name) { return FindSubKey(hive, name); }

std::unique_ptr<SubKeyList> Key::GetSubKeyList(Hive* hive) {
    return BuildNodeAt<SubKeyList>(hive, Field(NkField::SubKeyListCell), this, CellKind::BySignature);
}

std::unique_ptr<SubValList> Key::GetValueList(Hive* hive) {
    return BuildNodeAt<SubValList>(hive, Field(NkField::ValueListCell), this, CellKind::ValueList);
}

Key* Key::FindSubKey(Hive* hive, const char16_t* name) {
    if (SubKeyCount() == 0) return nullptr;
    if (subKeyList == nullptr) subKeyList = GetSubKeyList(hive);
    if (subKeyList == nullptr) return nullptr;
    return dynamic_cast<Key*>(subKeyList->FindChild(hive, name));
}

Val* Key::FindValue(Hive* hive, const char16_t* name) {
    if (ValueCount() == 0) return nullptr;
    if (valueList == nullptr) {
        valueList = GetValueList(hive);
        if (valueList != nullptr && carriedValueNames) valueList->AdoptNames(std::move(*carriedValueNames));
        carriedValueNames.reset();
    }
    if (valueList == nullptr) return nullptr;
    return dynamic_cast<Val*>(valueList->FindChild(hive, name));
}

std::optional<WString> KeyNameAt(Hive* hive, std::uint32_t cellOffset) {
    if (const WString* known = hive->FindKeyName(cellOffset)) return *known;
    std::unique_ptr<Key> key = BuildNodeAt<Key>(hive, cellOffset, nullptr, CellKind::BySignature);
    if (key == nullptr) return std::nullopt;
    WString name = key->GetName();
    hive->StoreKeyName(cellOffset, key->GetBufferSize(), name);
    return name;
}

Key* OwnerKey(const Node* node) {
    for (Node* up = node->GetParent(); up != nullptr; up = up->GetParent())
        if (Key* key = dynamic_cast<Key*>(up)) return key;
    return nullptr;
}

}  // namespace Tamvik
