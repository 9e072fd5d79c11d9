// File systems by their magic numbers.
#include "Probe.h"

#include <cstring>
#include <vector>

namespace TamvikImage {
namespace {

constexpr std::size_t kProbeBytes = 4096;
// ext's superblock starts 1024 bytes in.
constexpr std::size_t kExtMagic = 1024 + 56, kExtCompat = 1024 + 92, kExtIncompat = 1024 + 96,
                      kExtLabel = 1024 + 120, kExtLabelSize = 16;
constexpr std::uint32_t kExtHasJournal = 0x4, kExtExtents = 0x40, kExtFlexGroups = 0x200;
constexpr std::size_t kFat16Label = 43, kFat32Label = 71, kFatLabelSize = 11;

std::string Text(const std::vector<std::uint8_t>& bytes, std::size_t at, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(&bytes[at]), size);
    text = text.substr(0, text.find('\0'));
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text == "NO NAME" ? "" : text;
}

}  // namespace

void ProbeFileSystem(Block& disk, Partition& partition) {
    if (partition.size < kProbeBytes) return;
    std::vector<std::uint8_t> b(kProbeBytes);
    if (disk.Read(partition.start, b.data(), b.size())) return;
    const auto at = [&](std::size_t offset, const char* magic) {
        return std::memcmp(&b[offset], magic, std::strlen(magic)) == 0;
    };
    const auto u32 = [&](std::size_t offset) {
        return static_cast<std::uint32_t>(b[offset] | b[offset + 1] << 8 | b[offset + 2] << 16 |
                                          static_cast<std::uint32_t>(b[offset + 3]) << 24);
    };
    if (at(3, "NTFS    ")) {
        partition.fileSystem = FileSystem::Ntfs;
    } else if (at(3, "EXFAT   ")) {
        partition.fileSystem = FileSystem::ExFat;
    } else if (at(82, "FAT32   ")) {
        partition.fileSystem = FileSystem::Fat32;
        partition.label = Text(b, kFat32Label, kFatLabelSize);
    } else if (at(54, "FAT12   ") || at(54, "FAT16   ")) {
        partition.fileSystem = b[58] == '2' ? FileSystem::Fat12 : FileSystem::Fat16;
        partition.label = Text(b, kFat16Label, kFatLabelSize);
    } else if (b[kExtMagic] == 0x53 && b[kExtMagic + 1] == 0xEF) {
        const std::uint32_t incompat = u32(kExtIncompat);
        partition.fileSystem = incompat & (kExtExtents | kExtFlexGroups) ? FileSystem::Ext4
                               : u32(kExtCompat) & kExtHasJournal       ? FileSystem::Ext3
                                                                         : FileSystem::Ext2;
        partition.label = Text(b, kExtLabel, kExtLabelSize);
    }
}

}  // namespace TamvikImage

namespace TamvikImage {

const char* FileSystemName(FileSystem fileSystem) {
    switch (fileSystem) {
        case FileSystem::Ntfs: return "ntfs";
        case FileSystem::Fat12: return "fat12";
        case FileSystem::Fat16: return "fat16";
        case FileSystem::Fat32: return "fat32";
        case FileSystem::ExFat: return "exfat";
        case FileSystem::Ext2: return "ext2";
        case FileSystem::Ext3: return "ext3";
        case FileSystem::Ext4: return "ext4";
        case FileSystem::Unknown: break;
    }
    return "unknown";
}

}  // namespace TamvikImage
