// GPT and MBR, read with every field from the disk checked against the disk.
#include "Partitions.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <set>

namespace TamvikImage {
namespace {

constexpr std::uint64_t kMbrSector = 512;
constexpr std::size_t kMbrEntries = 446, kMbrEntrySize = 16, kMbrSignature = 510;
constexpr int kFirstLogical = 5;
constexpr int kMostLogicals = 128;  // far more than any tool makes; the chain walk stops there
constexpr std::uint8_t kGptProtective = 0xEE;

// GPT header fields.
constexpr std::size_t kGptHeaderSize = 12, kGptHeaderCrc = 16, kGptMyLba = 24, kGptAlternateLba = 32,
                      kGptEntriesLba = 72, kGptEntryCount = 80, kGptEntrySize = 84, kGptEntriesCrc = 88;
constexpr std::uint32_t kGptSmallestHeader = 92;
constexpr std::uint32_t kGptSmallestEntry = 128;
constexpr std::uint64_t kGptMostEntryBytes = 1u << 20;  // 8192 entries of 128 bytes
// GPT entry fields.
constexpr std::size_t kEntryFirstLba = 32, kEntryLastLba = 40;

std::uint64_t Le(const std::uint8_t* at, int bytes) {
    std::uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) value = value << 8 | at[i];
    return value;
}

std::uint32_t Crc(const std::uint8_t* data, std::size_t length) {
    std::uint32_t crc = static_cast<std::uint32_t>(crc32(0, nullptr, 0));
    while (length > 0) {  // zlib takes uInt lengths
        const uInt step = static_cast<uInt>(std::min<std::size_t>(length, 1u << 30));
        crc = static_cast<std::uint32_t>(crc32(crc, data, step));
        data += step, length -= step;
    }
    return crc;
}

// GUIDs are stored with their first three groups little-endian.
std::string GuidText(const std::uint8_t* g) {
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  static_cast<unsigned>(Le(g, 4)), static_cast<unsigned>(Le(g + 4, 2)),
                  static_cast<unsigned>(Le(g + 6, 2)), g[8], g[9], g[10], g[11], g[12], g[13], g[14], g[15]);
    return text;
}

const char* GptTypeName(const std::string& guid) {
    static const std::array<std::pair<const char*, const char*>, 10> names = {{
        {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data"},
        {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI System"},
        {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserved"},
        {"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows recovery environment"},
        {"5808C8AA-7E8F-42E0-85D2-E1E90434CFB3", "Microsoft LDM metadata"},
        {"AF9B60A0-1431-4F62-BC68-3311714A69AD", "Microsoft LDM data"},
        {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux filesystem"},
        {"0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "Linux swap"},
        {"E6D6D379-F507-44C2-A23C-238F2A3DF928", "Linux LVM"},
        {"21686148-6449-6E6F-744E-656564454649", "BIOS boot"},
    }};
    for (const auto& [id, name] : names)
        if (guid == id) return name;
    return "";
}

const char* MbrTypeName(std::uint8_t type) {
    switch (type) {
        case 0x01: return "FAT12";
        case 0x04: case 0x06: case 0x0E: return "FAT16";
        case 0x05: case 0x0F: return "Extended";
        case 0x07: return "HPFS/NTFS/exFAT";
        case 0x0B: case 0x0C: return "FAT32";
        case 0x27: return "Windows recovery environment";
        case 0x82: return "Linux swap";
        case 0x83: return "Linux";
        case 0x85: return "Linux extended";
        case 0x8E: return "Linux LVM";
        case 0xEF: return "EFI System";
        default: return "";
    }
}

bool IsExtended(std::uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

class Reader {
public:
    Reader(Block& disk, PartitionTable& table, Error& error) : disk_(disk), table_(table), error_(error) {}

    std::vector<std::uint8_t> Bytes(std::uint64_t offset, std::uint64_t length) {
        std::vector<std::uint8_t> bytes;
        if (offset > disk_.Size() || length > disk_.Size() - offset) return bytes;
        bytes.resize(length);
        if (Error error = disk_.Read(offset, bytes.data(), bytes.size())) {
            if (!error_) error_ = error;
            bytes.clear();
        }
        return bytes;
    }

    // One GPT copy at this LBA: its entries when the header and the entries check out.
    bool GptCopy(std::uint64_t lba, std::uint64_t sector, std::vector<std::uint8_t>& entries, std::uint32_t& entrySize,
                 std::uint64_t& alternate) {
        std::vector<std::uint8_t> header = Bytes(lba * sector, sector);
        if (header.size() < kGptSmallestHeader || std::memcmp(header.data(), "EFI PART", 8) != 0) return false;
        const std::uint32_t size = static_cast<std::uint32_t>(Le(&header[kGptHeaderSize], 4));
        if (size < kGptSmallestHeader || size > sector) return false;
        const std::uint32_t storedCrc = static_cast<std::uint32_t>(Le(&header[kGptHeaderCrc], 4));
        std::memset(&header[kGptHeaderCrc], 0, 4);
        if (Crc(header.data(), size) != storedCrc || Le(&header[kGptMyLba], 8) != lba) return false;
        alternate = Le(&header[kGptAlternateLba], 8);
        entrySize = static_cast<std::uint32_t>(Le(&header[kGptEntrySize], 4));
        const std::uint64_t count = Le(&header[kGptEntryCount], 4);
        const std::uint64_t entriesLba = Le(&header[kGptEntriesLba], 8);
        if (entrySize < kGptSmallestEntry || entrySize % 8 != 0 || count * entrySize > kGptMostEntryBytes ||
            entriesLba > disk_.Size() / sector)
            return false;
        entries = Bytes(entriesLba * sector, count * entrySize);
        return entries.size() == count * entrySize &&
               Crc(entries.data(), entries.size()) == static_cast<std::uint32_t>(Le(&header[kGptEntriesCrc], 4));
    }

    // False when there is no GPT at this sector size.
    bool Gpt(std::uint64_t sector) {
        const std::uint64_t lastLba = disk_.Size() / sector - 1;
        std::vector<std::uint8_t> primary, backup;
        std::uint32_t primarySize = 0, backupSize = 0;
        std::uint64_t alternate = lastLba, ignored = 0;
        const bool primaryGood = GptCopy(1, sector, primary, primarySize, alternate);
        const bool backupGood = GptCopy(primaryGood && alternate <= lastLba ? alternate : lastLba, sector, backup,
                                        backupSize, ignored);
        if (!primaryGood && !backupGood) {
            const std::vector<std::uint8_t> first = Bytes(sector, 8), last = Bytes(lastLba * sector, 8);
            const auto signed_ = [](const std::vector<std::uint8_t>& b) {
                return b.size() == 8 && std::memcmp(b.data(), "EFI PART", 8) == 0;
            };
            if (!signed_(first) && !signed_(last)) return false;
            if (!error_) error_ = Fail(ErrorKind::Damaged, "both GPT headers (or their partition entries) are damaged");
            return true;
        }
        table_.scheme = "gpt";
        if (!primaryGood) table_.warnings.push_back("the primary GPT header or its entries are damaged: the backup copy is used");
        if (!backupGood) table_.warnings.push_back("the backup GPT header or its entries are damaged");
        const std::vector<std::uint8_t>& entries = primaryGood ? primary : backup;
        const std::uint32_t entrySize = primaryGood ? primarySize : backupSize;
        for (std::size_t at = 0, index = 0; at + entrySize <= entries.size(); at += entrySize, ++index) {
            const std::uint8_t* entry = &entries[at];
            if (std::all_of(entry, entry + 16, [](std::uint8_t b) { return b == 0; })) continue;
            const std::uint64_t first = Le(entry + kEntryFirstLba, 8), last = Le(entry + kEntryLastLba, 8);
            Partition partition;
            partition.number = static_cast<int>(index) + 1;
            partition.typeId = GuidText(entry);
            partition.typeName = GptTypeName(partition.typeId);
            Add(partition, first, last < first ? 0 : last - first + 1, sector);
        }
        return true;
    }

    bool Mbr(const std::vector<std::uint8_t>& first) {
        if (first.size() < kMbrSector || first[kMbrSignature] != 0x55 || first[kMbrSignature + 1] != 0xAA) return false;
        table_.scheme = "mbr";
        for (int i = 0; i < 4; ++i) {
            const std::uint8_t* entry = &first[kMbrEntries + i * kMbrEntrySize];
            if (entry[4] == 0) continue;
            if (entry[4] == kGptProtective && !error_)
                error_ = Fail(ErrorKind::Damaged, "a protective MBR names a GPT, but the disk has no GPT header");
            Partition partition = Entry(entry, i + 1);
            if (!Add(partition, Le(entry + 8, 4), Le(entry + 12, 4), kMbrSector)) continue;
            if (IsExtended(entry[4])) {
                table_.partitions.pop_back();  // the container is no file system of its own
                Logicals(Le(entry + 8, 4));
            }
        }
        return true;
    }

private:
    static Partition Entry(const std::uint8_t* entry, int number) {
        Partition partition;
        partition.number = number;
        char id[8];
        std::snprintf(id, sizeof id, "0x%02X", entry[4]);
        partition.typeId = id;
        partition.typeName = MbrTypeName(entry[4]);
        return partition;
    }

    // Each link of the chain holds one logical partition (relative to the
    // link) and the next link (relative to the extended partition's start).
    void Logicals(std::uint64_t extendedLba) {
        std::set<std::uint64_t> seen;
        std::uint64_t link = extendedLba;
        for (int number = kFirstLogical;; ++number) {
            if (number - kFirstLogical == kMostLogicals || !seen.insert(link).second) {
                table_.warnings.push_back("the chain of logical partitions loops or runs on: it was followed to " +
                                          std::to_string(number - kFirstLogical) + " logical partitions");
                return;
            }
            const std::vector<std::uint8_t> record = Bytes(link * kMbrSector, kMbrSector);
            if (record.size() < kMbrSector || record[kMbrSignature] != 0x55 || record[kMbrSignature + 1] != 0xAA) {
                table_.warnings.push_back("a link of the chain of logical partitions is unreadable or unsigned");
                return;
            }
            const std::uint8_t* logical = &record[kMbrEntries];
            const std::uint8_t* next = logical + kMbrEntrySize;
            if (logical[4] != 0) {
                Partition partition = Entry(logical, number);
                Add(partition, link + Le(logical + 8, 4), Le(logical + 12, 4), kMbrSector);
            }
            if (!IsExtended(next[4])) return;  // the end of the chain
            link = extendedLba + Le(next + 8, 4);
        }
    }

    // Places a partition given in sectors; one that doesn't fit the disk is named and left out.
    bool Add(Partition& partition, std::uint64_t firstSector, std::uint64_t sectors, std::uint64_t sector) {
        const std::uint64_t disk = disk_.Size() / sector;
        if (sectors == 0 || firstSector >= disk || sectors > disk - firstSector) {
            table_.warnings.push_back("partition " + std::to_string(partition.number) +
                                      " lies outside the disk and is left out");
            return false;
        }
        partition.start = firstSector * sector;
        partition.size = sectors * sector;
        table_.partitions.push_back(partition);
        return true;
    }

    Block& disk_;
    PartitionTable& table_;
    Error& error_;
};

// A boot sector of a file system (NTFS, exFAT, FAT) also ends in 55 AA.
bool IsBootSector(const std::vector<std::uint8_t>& first) {
    const auto at = [&](std::size_t offset, const char* text) {
        return first.size() >= offset + std::strlen(text) && std::memcmp(&first[offset], text, std::strlen(text)) == 0;
    };
    return at(3, "NTFS    ") || at(3, "EXFAT   ") || at(54, "FAT1") || at(82, "FAT32   ");
}

}  // namespace

PartitionTable ReadPartitionTable(Block& disk, Error& error) {
    PartitionTable table;
    Reader reader(disk, table, error);
    const std::vector<std::uint8_t> first = reader.Bytes(0, kMbrSector);
    if (error) return table;
    for (std::uint64_t sector : {512u, 4096u})
        if (disk.Size() >= 4 * sector && reader.Gpt(sector)) return table;
    if (error || (!IsBootSector(first) && reader.Mbr(first))) return table;
    table.scheme = "none";
    table.partitions.push_back(Partition{0, 0, disk.Size(), "", "", FileSystem::Unknown, ""});
    return table;
}

}  // namespace TamvikImage
