// The internal C++ API: everything the library does beyond the 28 exported
// functions, for the tool, the Python binding and the disk-image support.
// Keys and values are named by their cell offsets, not by handles: any number
// of them may be in use at once and opening one ends nothing. Every call
// checks what stands at the offsets it is given and answers with a Status
// (kind, file offset, text), never a crash. Each write is in the file, or on
// the device, when the call returns; a failed write leaves the hive as it was.
// Not exported from libtamvik.so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "edit/NameForms.h"
#include "edit/NewHive.h"
#include "store/Platform.h"
#include "store/Status.h"

class CRegVolumeDevice;

namespace Tamvik {

class Hive;

using CellOffset = std::uint32_t;
using ByteVector = std::vector<std::uint8_t>;

enum class OpenMode : std::uint8_t {
    ReadOnly,
    Writable,
    // Read only, and opened even when the base block's signature or checksum
    // is wrong: for the integrity check and for looking at damaged hives.
    Inspect,
};

// The facts of one key, as its nk record holds them.
struct KeyInfo {
    WString name;
    std::uint16_t flags = 0;
    std::uint64_t timestamp = 0;  // the Timestamp field as stored
    CellOffset parent = 0;
    std::uint32_t subKeys = 0, values = 0;
    std::uint32_t maxSubKeyName = 0, maxValueName = 0;  // in characters
    std::uint32_t maxClassName = 0, maxValueData = 0;   // as stored
    CellOffset securityCell = 0, classCell = 0;
};

// A subkey at one position of its parent's list; status tells why the
// position gives no key, when it doesn't (then cell and name are empty).
struct SubKeyItem {
    WString name;
    CellOffset cell = 0;
    Status status;
};

// A value at one position of its key's list. length is the stored length,
// data its bytes when they were asked for and could be read.
struct ValueItem {
    WString name;
    std::uint32_t type = 0;
    std::uint32_t length = 0;
    CellOffset cell = 0;
    ByteVector data;
    Status status;
};

class HiveAccess {
public:
    // A hive file, read into memory once.
    static Status Open(const std::string& path, OpenMode mode, std::unique_ptr<HiveAccess>* opened);
    // A hive file on a caller's volume device, read once through it into
    // memory: what a call changes goes back through the device before the
    // call returns. The device is closed with the hive.
    static Status Open(CRegVolumeDevice* device, const WString& path, OpenMode mode,
                       std::unique_ptr<HiveAccess>* opened);
    // Writes a new, empty hive to a file that doesn't exist yet, durably.
    static Status CreateHive(const std::string& path, const NewHiveOptions& options);
    ~HiveAccess();
    HiveAccess(const HiveAccess&) = delete;
    HiveAccess& operator=(const HiveAccess&) = delete;

    // Hands everything to the storage and makes it durable.
    Status Close();

    CellOffset Root() const;
    // Whether the base block's signature and checksum hold (an inspected hive may fail them).
    bool BaseBlockSound() const;
    std::uint32_t MinorVersion() const;

    // Reading. Names are matched as the library matches them (each unit
    // upper-cased under the locale); any name can be asked, NUL and backslash too.
    Status Info(CellOffset key, KeyInfo* info);
    Status FindSubKey(CellOffset key, const WString& name, CellOffset* found);
    // A path of names below key, split at backslashes (one in front is skipped).
    Status Find(CellOffset key, const WString& path, CellOffset* found);
    // Every position of the key's list in stored order. The status is the
    // first fault met: a position that gives no key, or a count the list
    // doesn't hold (then the positions it does hold are given).
    Status SubKeys(CellOffset key, std::vector<SubKeyItem>* items);
    // Every value of the key in stored order, with the data when withData.
    Status Values(CellOffset key, bool withData, std::vector<ValueItem>* items);
    // The value of that name; the empty name is the default value.
    Status FindValue(CellOffset key, const WString& name, bool withData, ValueItem* item);
    // The data of the value at a vk offset, whichever form it is stored in.
    Status ValueData(CellOffset value, ByteVector* data);

    // Writing (Writable hives only).
    // A new subkey of any non-empty name, stored compressed when every
    // character fits Latin-1, else as UTF-16.
    Status CreateSubKey(CellOffset parent, const WString& name, ListOrder order, CellOffset* created);
    // Creates the value, or gives the one of that name the new type and data
    // in its place. surelyNew skips the lookup, for a name known to be new.
    Status SetValue(CellOffset key, const WString& name, std::uint32_t type, const std::uint8_t* data,
                    std::uint32_t length, bool surelyNew = false);
    Status DeleteValue(CellOffset key, const WString& name);
    // Deletes a subkey of parent that has no subkeys of its own.
    Status DeleteSubKey(CellOffset parent, CellOffset key);
    // Puts the key's subkey list in Windows order; *changed tells whether entries moved.
    Status SortSubKeys(CellOffset key, bool* changed);

private:
    HiveAccess(std::unique_ptr<Hive> hive, bool writable);
    Status Writable() const;
    // The position of the value of that name in the key's list, or NotFound.
    Status ValuePosition(CellOffset key, const WString& name, std::uint32_t* position);

    std::unique_ptr<Hive> hive_;
    bool writable_;
};

}  // namespace Tamvik
