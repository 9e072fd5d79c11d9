// How a new name is stored, the hint a subkey list keeps beside it, and the
// two orders of names in a list: the library's and the one Windows keeps.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "store/Platform.h"

namespace Tamvik {

// The two ways a new name reaches a record. The exported functions store the
// code page 936 bytes of their narrow name, flagged as one byte a character;
// the internal functions store the name itself, one byte a character when
// every character fits Latin-1 (compressed), else as UTF-16LE.
enum class NameForm : std::uint8_t { CodePage936, Stored };

struct NewName {
    NameForm form = NameForm::Stored;
    std::string bytes;      // as the record holds them
    bool compressed = true;  // the record's narrow-name flag
    WString units;           // the characters as the record reads back: a unit per byte when compressed
    WString wide;            // the name the caller meant, as lookups compare it

    // The length MaxSubKeyName and MaxValueName count.
    std::uint32_t Units() const { return static_cast<std::uint32_t>(units.size()); }
};

// The exported functions' form: narrow is the code page 936 text, wide the caller's name.
NewName CodePageName(const std::string& narrow, const WString& wide);
// The internal functions' form; nothing when the bytes would pass the 16 bits of NameLength.
std::optional<NewName> StoredName(const WString& name);

// The hint an entry of a leaf with this signature carries beside the name (0
// for li): an lf keeps the first four characters a byte each, zeros behind a
// short name and a first byte of 0 when one doesn't fit a byte; an lh keeps
// 37 * hash + each character upper-cased. The upper case of a stored name is
// Windows' own; the exported functions' narrow names add each byte from 0x80
// as a negative 8-bit number, as toupper leaves it.
std::uint32_t EntryHint(std::uint16_t signature, const NewName& name);
// The same for a name read from a record.
std::uint32_t HintFor(std::uint16_t signature, const WString& name);

// Where a new subkey goes in its parent's list: where the exported functions
// put it (before the first name _stricmp orders after it; characters without
// a code page 936 form compare as '?'), or in Windows' order.
enum class ListOrder : std::uint8_t { Library, Windows };
// True when the new name goes before an existing one in that order.
bool GoesBefore(const NewName& name, const std::string& nameNarrow, std::u16string_view existing, ListOrder order);
// <0, 0 or >0 as the library's order places two names.
int CompareLibraryOrder(const std::string& nameNarrow, std::u16string_view existing);
// What that order compares of an existing name, made once for many
// comparisons: CompareNoCase(nameNarrow, key) orders as CompareLibraryOrder.
std::string LibraryOrderKey(std::u16string_view existing);

// One UTF-16 unit upper-cased as Windows does it, whatever the locale; and a
// whole name so.
char16_t WindowsUpper(char16_t unit);
WString WindowsUpperName(const WString& name);
// The order of the names in a subkey list as Windows keeps it: each unit
// upper-cased, then compared as numbers. <0, 0 or >0.
int CompareWindowsOrder(std::u16string_view a, std::u16string_view b);

}  // namespace Tamvik
