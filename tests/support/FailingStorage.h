// Tools for the editing tests: a hive held in memory whose storage can be made
// to refuse chosen writes, a reader of a hive file's raw records to check what
// an edit wrote, and a walk of a file by hivex as an outside opinion.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "RegAPI.h"
#include "store/Hive.h"
#include "store/StorageOps.h"
#include "support/HiveBuilder.h"
#include "support/TempFile.h"

namespace TamvikTest {

// A hive file in memory behind StorageOps. Writes can be refused by where they
// land or by their number, so that a test decides which allocation fails: a
// refused write at the end of the bins is an AppendBin that can't be had.
class MemoryStorage {
public:
    explicit MemoryStorage(Bytes file) : bytes(std::move(file)) {}
    MemoryStorage(const MemoryStorage&) = delete;
    MemoryStorage& operator=(const MemoryStorage&) = delete;

    // Every write that starts at or behind this file position is refused.
    void RefuseFrom(std::uint64_t position) { refuseFrom = position; }
    // Refuses every write that would grow the hive: a new bin can't be had.
    void RefuseNewBins() { refuseFrom = bytes.size(); }
    // Refuses the n-th write from now on (1 is the next one); 0 refuses none.
    void RefuseWriteNumber(std::uint32_t n) { refuseNumber = n == 0 ? 0 : writes + n; }

    // A Hive over this storage; the storage must outlive it.
    std::unique_ptr<Tamvik::Hive> OpenHive();

    Bytes bytes;
    std::uint64_t position = 0;
    std::uint64_t refuseFrom = std::numeric_limits<std::uint64_t>::max();
    std::uint32_t refuseNumber = 0;
    std::uint32_t writes = 0;         // writes asked for, refused ones included
    std::uint32_t refusedWrites = 0;

private:
    static bool Seek(void* context, std::uint64_t* position, std::uint32_t origin);
    static bool Read(void* context, void* buffer, std::uint32_t elementSize, std::uint32_t* count);
    static bool Write(void* context, const void* buffer, std::uint32_t elementSize, std::uint32_t* count);
};

// Read-only view of a hive file's records, by area offsets as the format names them.
class HiveImage {
public:
    explicit HiveImage(Bytes file);
    static HiveImage OfFile(const std::string& path);

    const Bytes& File() const { return file_; }
    std::uint32_t MinorVersion() const { return File32(0x18); }
    std::uint32_t RootCell() const { return File32(0x24); }
    std::uint32_t BinsSize() const { return File32(0x28); }

    std::uint32_t File32(std::uint64_t position) const;
    std::uint16_t File16(std::uint64_t position) const;
    std::int32_t CellSize(std::uint32_t cell) const;
    bool IsAllocated(std::uint32_t cell) const { return CellSize(cell) < 0; }
    // Fields of a record, counted from the payload start (4 or 8 bytes into the cell).
    std::uint32_t U32(std::uint32_t cell, std::uint32_t at) const;
    std::uint16_t U16(std::uint32_t cell, std::uint32_t at) const;
    std::uint64_t U64(std::uint32_t cell, std::uint32_t at) const;
    Bytes PayloadBytes(std::uint32_t cell, std::uint32_t at, std::uint32_t length) const;
    std::string Signature(std::uint32_t cell) const;

    // Keys: the stored name bytes, the subkeys in list order (any list kind), lookups by exact name.
    std::string KeyName(std::uint32_t nk) const;
    std::vector<std::uint32_t> SubKeys(std::uint32_t nk) const;
    std::uint32_t FindSubKey(std::uint32_t nk, const std::string& name) const;  // kNone when absent
    std::uint32_t KeyAt(const std::string& path) const;                         // "" is the root, "A\\B"
    // Values: vk offsets in list order and by exact name.
    std::vector<std::uint32_t> Values(std::uint32_t nk) const;
    std::uint32_t FindValue(std::uint32_t nk, const std::string& name) const;
    // The data of a vk, whatever its form (inline, cell, db), cut to DataLength.
    Bytes ValueData(std::uint32_t vk) const;

    // Every cell of every bin in file order: (offset, signed size).
    std::vector<std::pair<std::uint32_t, std::int32_t>> Cells() const;
    std::set<std::uint32_t> AllocatedCells() const;

    static constexpr std::uint32_t kNone = 0xFFFFFFFF;

private:
    std::uint32_t Payload() const { return MinorVersion() == 1 ? 8 : 4; }
    Bytes file_;
};

// Turns every free cell of a built file into an allocated one, except the cells
// at the offsets in keep, so that new cells go exactly where a test wants them
// (or need a new bin).
void SealFreeCells(Bytes& file, const std::set<std::uint32_t>& keep = {});

// A built hive in a temporary file, opened the way the suite's mode says
// (file or volume) and closed at the latest when the session goes.
class EditSession {
public:
    explicit EditSession(const Bytes& file);
    ~EditSession();
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;

    // The key at a path below the root ("" is the root), or null.
    RegAPI::HKEY Key(const std::u16string& path);
    // Closes the hive (once); gives the result of the close.
    RegAPI::LONG Close();
    // The file as it stands; call after Close for what the edits left.
    HiveImage Image() const { return HiveImage(file.Read()); }

    TempFile file;
    RegAPI::HKEY hive = nullptr;
    RegAPI::LONG openResult = -1;
};

// What hivex makes of a file: whether python3-hivex is there, whether a full
// walk of keys and values (with every value's data read) went through, and its output.
struct HivexVerdict {
    bool available = false;
    bool ok = false;
    std::string output;
};
HivexVerdict HivexWalk(const std::string& path);

// Bytes counting up from a seed, distinct enough to see misplaced data.
Bytes CountingBytes(std::size_t length, std::uint8_t seed = 1);

}  // namespace TamvikTest
