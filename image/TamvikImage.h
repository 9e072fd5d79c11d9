// Public interface of libtamvik-image: registry hives inside disk images.
// Open a raw or virtual-disk image (qcow2, vmdk, vhdx, vhd, vdi through
// qemu-nbd), list its partitions and the NTFS volumes on them, find the
// hives of a Windows installation, and hand the hive library a
// CRegVolumeDevice over one file of such a volume. Nothing is mounted and
// nothing needs root.
//
// Lifetimes: a VolumeDevice lives inside its Volume's life, and a Volume
// inside its Image's. One object is used by one thread at a time.
#pragma once

#include <RegAPI.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#if defined(__GNUC__)
#define TAMVIK_IMAGE_API __attribute__((visibility("default")))
#else
#define TAMVIK_IMAGE_API
#endif

namespace TamvikImage {

enum class ErrorKind {
    None,
    NotFound,     // no such image, partition, file or folder
    Unsupported,  // not something we can open, or an operation this image, volume or file can't take
    Damaged,      // a partition table or file system that doesn't hold together
    Locked,       // another process has the image
    Unsafe,       // writing would lose what Windows keeps: hibernated, fast startup, unclean volume
    Encrypted,    // an EFS-encrypted file
    Io,           // a read, write or flush failed underneath
};

// The kind of a failure and a sentence for people.
struct Error {
    ErrorKind kind = ErrorKind::None;
    std::string text;
    explicit operator bool() const { return kind != ErrorKind::None; }
};

enum class FileSystem { Unknown, Ntfs, Fat12, Fat16, Fat32, ExFat, Ext2, Ext3, Ext4 };
// "ntfs", "fat32", "ext4", ..., "unknown".
TAMVIK_IMAGE_API const char* FileSystemName(FileSystem fileSystem);

struct Partition {
    int number = 0;            // as Linux numbers them: GPT entry + 1; MBR 1-4 primary, 5+ logical;
                               // 0: the whole disk, which has no partition table
    std::uint64_t start = 0;   // bytes from the start of the disk
    std::uint64_t size = 0;    // bytes
    std::string typeId;        // GPT type GUID, or the MBR type byte as "0x07"; empty for the whole disk
    std::string typeName;      // "Microsoft basic data", "Linux", ...; empty when unknown
    FileSystem fileSystem = FileSystem::Unknown;
    std::string label;         // the volume's name, when its file system has one
};

struct OpenOptions {
    // Open for writing; raw images are then locked with flock, others by qemu.
    bool writable = false;
    // "raw", "qcow2", "vmdk", "vhdx", "vpc" (vhd), "vdi", ...; empty: read from the image's own bytes.
    std::string format;
    // When set, create this new qcow2 file with the image as its backing file
    // and open it for writing: the image itself stays byte for byte as it is.
    std::string overlay;
};

class TAMVIK_IMAGE_API Image {
public:
    // Null with the reason in error when the image can't be opened.
    static std::unique_ptr<Image> Open(const std::string& path, const OpenOptions& options, Error& error);
    ~Image();  // closes as Close does, dropping its error
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    const std::string& Format() const;  // the format it was opened as
    const std::string& Table() const;   // "gpt", "mbr" or "none"
    std::uint64_t Size() const;         // bytes of the virtual disk
    bool Writable() const;
    const std::vector<Partition>& Partitions() const;
    // What was found wrong but could be worked around (a damaged GPT copy, a looping chain of logical partitions).
    const std::vector<std::string>& Warnings() const;
    // The numbers of the NTFS partitions that have a file at this path.
    std::vector<int> PartitionsHolding(const std::string& path);
    // Writes out what the image's server holds (nbd flush, or fsync of a raw file).
    Error Flush();
    // Flushes and lets the image go (the qemu-nbd server has exited when this returns).
    Error Close();

    struct Impl;
    Impl& Internal() { return *impl_; }

private:
    explicit Image(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

struct Entry {
    std::string name;
    bool directory = false;
    std::uint64_t size = 0;  // of a file's data
};

struct HiveFile {
    std::string path;               // from the volume's root, with '/'
    std::uint64_t size = 0;
    std::vector<std::string> logs;  // paths of NAME.LOG, NAME.LOG1, ... beside it
};

// One NTFS volume of an image. Paths match as Windows matches them: any
// letter case, '/' or '\' between the names, a leading separator or none.
class TAMVIK_IMAGE_API Volume {
public:
    // partition: a number of Image::Partitions(). Writing needs a writable
    // image and a volume Windows left safe to write: a hibernated one, one left
    // by fast startup, or one whose journal isn't clean can only be read.
    static std::unique_ptr<Volume> Open(Image& image, int partition, bool writable, Error& error);
    ~Volume();
    Volume(const Volume&) = delete;
    Volume& operator=(const Volume&) = delete;

    const std::string& Label() const;
    bool Writable() const;
    bool Stat(const std::string& path, Entry& entry, Error& error);
    bool List(const std::string& directory, std::vector<Entry>& entries, Error& error);
    // The file's bytes, at most limit of them (4096 gives a hive's base block).
    bool Read(const std::string& path, std::vector<std::uint8_t>& bytes, Error& error,
              std::uint64_t limit = std::numeric_limits<std::uint64_t>::max());
    // The logs beside a hive: files of its folder named NAME.LOG, NAME.LOG1, ... in any case.
    std::vector<std::string> LogsBeside(const std::string& hivePath);
    // The hives of a Windows installation in their usual places, in that order.
    std::vector<HiveFile> Hives();
    // Writes the volume's changed records and flushes the image.
    Error Sync();

    struct Impl;
    Impl& Internal() { return *impl_; }

private:
    explicit Volume(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// The hive library's device over files of one volume. DeviceOpen takes the
// file's path on the volume, reads its bytes once and serves reads from
// memory; each write goes through to the file before the call returns (a
// write past the end grows it); DeviceClose syncs the file, the volume and
// the image. A failure gives false, and LastError() says why. A device on a
// writable volume refuses to open a compressed file, which it could not
// rewrite in place; an encrypted file is refused either way.
class TAMVIK_IMAGE_API VolumeDevice : public CRegVolumeDevice {
public:
    explicit VolumeDevice(Volume& volume);
    ~VolumeDevice() override;
    VolumeDevice(const VolumeDevice&) = delete;
    VolumeDevice& operator=(const VolumeDevice&) = delete;

    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t) override;
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override;
    bool DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) override;
    bool DeviceClose(void* handle) override;

    // Why the last call that failed did; kind None when none has.
    const Error& LastError() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace TamvikImage
