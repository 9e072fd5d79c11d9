// The one fixture of the suite: a hive file laid out by the builder (or copied
// from a real one), opened through the public functions in the suite's mode
// (as a file, or through a volume device), and the arrange-and-act helper for
// edits that gives the file before and after.
#pragma once

#include <RegAPI.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/HiveBuilder.h"

namespace Tamvik {
class Hive;
}

namespace TamvikTest {

class TestHive {
public:
    explicit TestHive(const Bytes& file, bool readOnly = false);
    explicit TestHive(const HiveBuilder& builder, bool readOnly = false) : TestHive(builder.Build(), readOnly) {}
    ~TestHive() { Close(); }
    TestHive(const TestHive&) = delete;
    TestHive& operator=(const TestHive&) = delete;

    // The key at a path below the root (u"" is the root), or null.
    RegAPI::HKEY Key(const std::u16string& path = u"");
    // The library's object behind the hive handle, for tests of its inner rules.
    Tamvik::Hive* Internal() const;
    // What the file holds now.
    Bytes Disk() const;
    void Close();
    RegAPI::LONG Reopen();

    TempFile file;
    bool readOnly;
    RegAPI::HKEY hive = nullptr;
    RegAPI::LONG openResult;
};

struct EditOutcome {
    RegAPI::LONG result;
    Bytes before, after;
};
// Opens the hive, runs act on it, closes it: what act answered, and the file before and after.
EditOutcome Edit(const HiveBuilder& builder, const std::function<RegAPI::LONG(TestHive&)>& act);
// A narrow-named subkey made under key, its handle dropped: the result number.
inline RegAPI::LONG Create(RegAPI::HKEY key, const char* name) {
    RegAPI::HKEY out = nullptr;
    return RegAPI::RegCreateKeyExA(key, name, &out);
}

// The records of a hive file by cell offset, fields counted from the payload
// start (4 bytes into a cell, 8 in version 1.1). Reads past the file give 0.
class Image {
public:
    explicit Image(Bytes file_) : file(std::move(file_)) {}
    std::uint32_t Minor() const { return Word(0x18); }
    std::uint32_t BinsSize() const { return Word(0x28); }
    std::uint32_t Root() const { return Word(0x24); }
    std::int32_t Size(std::uint32_t cell) const { return static_cast<std::int32_t>(Word(4096ull + cell)); }
    std::uint32_t U32(std::uint32_t cell, std::uint32_t field) const { return Word(Payload(cell) + field); }
    std::uint16_t U16(std::uint32_t cell, std::uint32_t field) const { return U32(cell, field) & 0xFFFF; }
    std::string Sig(std::uint32_t cell) const;
    // The stored name bytes of an nk or vk.
    std::string Name(std::uint32_t cell) const;
    // The nk cells an nk's subkey list names, in list order (leaves of an ri joined).
    std::vector<std::uint32_t> SubKeys(std::uint32_t nk) const;
    std::vector<std::string> SubKeyNames(std::uint32_t nk) const;
    // Every cell the walk of the bins meets: offset and CellSize.
    std::map<std::uint32_t, std::int32_t> Cells() const;
    // The file with the times new bins carry cleared.
    Bytes WithoutBinTimes() const;
    // The data of a vk, in whatever form it stands.
    Bytes Data(std::uint32_t vk) const;
    // The u32 at a file position, 0 past the end.
    std::uint32_t Word(std::uint64_t position) const;

    Bytes file;

private:
    std::uint64_t Payload(std::uint32_t cell) const { return 4096ull + cell + (Minor() == 1 ? 8 : 4); }
    std::vector<std::uint32_t> ListEntries(std::uint32_t list) const;
};

}  // namespace TamvikTest
