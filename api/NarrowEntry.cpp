// The value functions for narrow callers: names and string data in code page
// 936, converted to and from the wide text that the hive holds.
#include <cstring>
#include <new>
#include <vector>

#include "store/ByteOrder.h"
#include "store/CodePage.h"
#include "store/Format.h"
#include "api/ValueRead.h"
#include "api/WriteChecks.h"
#include "nodes/Data.h"
#include "store/Hive.h"

namespace Tamvik {

namespace {

// Narrow text from the stored wide text of a string value: strings end at
// their NUL or at the end of the data; characters without a narrow form are '?'.
std::string NarrowText(const std::vector<std::uint8_t>& stored, RegAPI::DWORD type) {
    const std::size_t units = stored.size() / 2;
    std::vector<char16_t> wide(units + 1, 0);
    for (std::size_t i = 0; i < units; ++i)
        wide[i] = static_cast<char16_t>(LoadU16(stored.data() + 2 * i));
    if (type == ValueType::MultiString) {
        std::string out(stored.size() + 1, '\0');
        out.resize(MultiWideToNarrow(out.data(), wide.data(), static_cast<std::uint32_t>(stored.size())));
        return out;
    }
    std::string text = NarrowLossy(wide.data(), units);
    text.push_back('\0');  // the caller always gets terminated text
    return text;
}

// Wide text to store for narrow string data; nothing when it isn't valid code page 936.
std::optional<std::vector<std::uint8_t>> WidenData(const RegAPI::BYTE* data, RegAPI::DWORD size, RegAPI::DWORD type) {
    const char* text = reinterpret_cast<const char*>(data);
    WString wide;
    if (type == ValueType::MultiString) {
        std::vector<char16_t> buffer(static_cast<std::size_t>(size) + 1, 0);
        long count = MultiNarrowToWide(buffer.data(), text, size);
        if (count < 0) return std::nullopt;
        wide.assign(buffer.data(), static_cast<std::size_t>(count));
    } else {
        std::optional<WString> converted = WidenBounded(text, size);
        if (!converted) return std::nullopt;
        wide = *converted;
    }
    std::vector<std::uint8_t> bytes(wide.size() * 2);
    for (std::size_t i = 0; i < wide.size(); ++i) StoreU16(bytes.data() + 2 * i, wide[i]);
    return bytes;
}

}  // namespace

bool IsStringType(RegAPI::DWORD type) {
    return type == ValueType::String || type == ValueType::ExpandString || type == ValueType::MultiString;
}

RegAPI::LONG DeliverNarrow(Val* value, Hive* hive, RegAPI::DWORD* type, RegAPI::BYTE* data,
                           RegAPI::DWORD* dataSize) {
    using namespace RegAPI;
    if (type != nullptr) *type = value->ValueType();
    if (!IsStringType(value->ValueType())) return Deliver(value, hive, nullptr, data, dataSize);
    if (dataSize == nullptr) return Result::Ok;
    const std::uint32_t length = value->StoredLength();
    const std::uint32_t half = length >> 1;
    if (data == nullptr || *dataSize < half) {
        *dataSize = half;
        return Result::Ok;
    }
    if (!value->DataFits(hive)) return Result::MoreData;
    std::vector<std::uint8_t> stored;
    try {
        stored.resize(length);
    } catch (const std::bad_alloc&) {
        return Result::Corrupt;
    }
    if (!value->ReadData(hive, stored.data(), length)) return Result::MoreData;
    const std::string text = NarrowText(stored, value->ValueType());
    // Double-byte text can need more than half the stored length: it is never
    // written past the caller's capacity, which learns the number it needs.
    if (text.size() > *dataSize) {
        *dataSize = static_cast<DWORD>(text.size());
        return Result::Ok;
    }
    std::memcpy(data, text.data(), text.size());
    *dataSize = half;
    return Result::Ok;
}

}  // namespace Tamvik

namespace RegAPI {

using namespace Tamvik;

LONG RegQueryValueExA(HKEY key, const char* name, DWORD*, DWORD* type, BYTE* data, DWORD* dataSize) {
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(name);
    if (!wide || node->ValueCount() == 0) return Result::Invalid;
    Hive* hive = nullptr;
    Val* value = FindValueNamed(node, *wide, &hive);
    if (value == nullptr) return Result::Invalid;
    return DeliverNarrow(value, hive, type, data, dataSize);
}

LONG RegEnumValueA(HKEY key, DWORD index, char* name, DWORD* nameLength, DWORD*, DWORD* type, BYTE* data,
                   DWORD* dataSize) {
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || nameLength == nullptr) return Result::Invalid;
    return WithValueAt(node, index, [&](Val* value, Hive* hive) {
        const std::string narrow = NarrowLossy(value->GetName());
        // *nameLength is the room in name in bytes, terminator included.
        if (*nameLength < narrow.size() + 1) return Result::Invalid;
        std::memcpy(name, narrow.data(), narrow.size());
        name[narrow.size()] = 0;
        *nameLength = static_cast<DWORD>(narrow.size());
        return DeliverNarrow(value, hive, type, data, dataSize);
    });
}

LONG RegSetValueExA(HKEY key, const char* name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || data == nullptr || size == 0) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(name);
    if (!wide || node->ValueCount() == 0) return Result::Invalid;
    if (!IsStringType(type)) return ReplaceValue(node, *wide, type, size, data, size);
    try {
        std::optional<std::vector<std::uint8_t>> stored = WidenData(data, size, type);
        if (!stored) return Result::Invalid;
        return ReplaceValue(node, *wide, type, size, stored->data(), static_cast<DWORD>(stored->size()));
    } catch (const std::bad_alloc&) {
        return Result::Corrupt;
    }
}

LONG RegSetValueNewA(HKEY key, const char* name, DWORD, DWORD type, const BYTE* data, DWORD size) {
    const WriteBack writeBack(key);
    Key* node = KeyOf(key);
    if (node == nullptr || name == nullptr || data == nullptr || size == 0) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(name);
    if (!wide) return Result::Invalid;
    if (ValueExists(node, *wide)) return Result::AlreadyExists;
    if (!IsStringType(type)) return CreateValue(node, name, *wide, type, data, size);
    try {
        std::optional<std::vector<std::uint8_t>> stored = WidenData(data, size, type);
        if (!stored) return Result::Invalid;
        return CreateValue(node, name, *wide, type, stored->data(), static_cast<DWORD>(stored->size()));
    } catch (const std::bad_alloc&) {
        return Result::Corrupt;
    }
}

LONG RegDeleteKeyA(HKEY key, const char* path) {
    if (path == nullptr) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(path);
    if (!wide) return Result::Invalid;
    return RegDeleteKeyW(key, wide->c_str());
}

LONG RegDeleteValueA(HKEY key, const char* name) {
    if (name == nullptr) return Result::Invalid;
    std::optional<WString> wide = WidenArgument(name);
    if (!wide) return Result::Invalid;
    return RegDeleteValueW(key, wide->c_str());
}

}  // namespace RegAPI
