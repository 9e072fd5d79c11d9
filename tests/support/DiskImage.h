// Disk images for the image library's tests, made without root: mkntfs on a
// file, files put in through libntfs-3g, a partition table by sfdisk, qemu-img
// convert to the other formats; and the independent checks on the result.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/Files.h"

namespace TamvikTest {

// The outside programs these tests run, those missing; empty when all are there.
std::string ImageToolsMissing();

#define SKIP_WITHOUT_IMAGE_TOOLS()                                                                       \
    if (const std::string missing = TamvikTest::ImageToolsMissing(); !missing.empty())                  \
    GTEST_SKIP() << "the image tests need " << missing

// A folder in the temporary folder, removed with all it holds.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

struct NtfsFile {
    std::string path;  // with '/', from the root; folders are made on the way
    Bytes bytes;
    bool encrypted = false;   // only marked so: the bytes stay plain
    bool compressed = false;  // made in a folder marked compressed, as Windows' compression makes it
};

// A new NTFS volume file of size bytes, holding these files.
void MakeNtfs(const std::string& file, std::uint64_t size, const std::string& label, const std::vector<NtfsFile>& files);

// Leaves a volume file as Windows may leave one that isn't safe to write:
// "fast-startup" (its journal's restart pages at version 2.0), "unclean" (a
// journal not marked clean) or "dirty" (the volume's dirty flag).
void SpoilNtfs(const std::string& file, const std::string& how);

enum class Table { Gpt, Mbr, None };
// A raw disk with the volume as its NTFS partition: GPT (ext2 1, NTFS 2, and
// with twice the same volume again as 3), MBR (ext2 1, extended 2 holding the
// NTFS as logical 5) or no table (the volume itself). Gives where the NTFS starts.
std::uint64_t MakeDisk(const std::string& disk, Table table, const std::string& volume, bool twice = false);

// qemu-img convert from a raw disk; options as -o takes them.
void ConvertImage(const std::string& raw, const std::string& format, const std::string& to,
                  const std::string& options = "");

// A file's bytes from the NTFS at start in an image of any format, as
// qemu-img and ntfscat see it.
Bytes ExtractFile(const std::string& image, std::uint64_t start, const std::string& path, const ScratchDir& scratch);
// What ntfsfix -n and fsntfsinfo say against the NTFS at start; empty when both are content.
std::string NtfsComplaints(const std::string& image, std::uint64_t start, const ScratchDir& scratch);

const std::string kSystem = "Windows/System32/config/SYSTEM";

// A hive of a key ROOT with a subkey of that name and one more.
Bytes SmallHive(const std::string& name);
// A volume as Windows lays one out, a few files that aren't hives among the hives.
std::vector<NtfsFile> WindowsFiles();

struct Kit {
    std::string image;
    std::uint64_t start;  // of the NTFS
};

// A 16 MiB volume of these files (spoilt as SpoilNtfs says), on a disk with
// that table, in that format (made with qemu-img's -o options).
Kit MakeImage(const ScratchDir& scratch, Table table, const std::string& format, const std::string& options = "",
              std::vector<NtfsFile> files = WindowsFiles(), const std::string& spoil = "", bool twice = false);

std::string FileDigest(const std::string& path);
// Sets bytes of a file in place.
void PatchFile(const std::string& path, std::uint64_t offset, const Bytes& bytes);

}  // namespace TamvikTest
