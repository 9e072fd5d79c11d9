// Disk images made and checked with outside programs (see DiskImage.h).
#include "support/DiskImage.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "NtfsHeaders.h"

extern "C" {
#include <ntfs-3g/mst.h>
}
#include "support/HiveBuilder.h"
#include "support/Peers.h"

namespace TamvikTest {
namespace {

std::string Run(const std::string& command) {
    const auto [status, out] = Capture(command + " 2>&1");
    if (status != 0) throw std::runtime_error(command + " failed: " + out);
    return out;
}

ntfs_inode* Child(ntfs_inode* folder, const std::string& name, bool isFolder) {
    ntfschar* wide = nullptr;
    const int length = ntfs_mbstoucs(name.c_str(), &wide);
    const u64 found = ntfs_inode_lookup_by_name(folder, wide, length);
    ntfs_inode* child = found != static_cast<u64>(-1)
                            ? ntfs_inode_open(folder->vol, MREF(found))
                            : ntfs_create(folder, 0, wide, static_cast<u8>(length), isFolder ? S_IFDIR : S_IFREG);
    std::free(wide);
    if (child == nullptr) throw std::runtime_error("libntfs-3g can't make " + name);
    return child;
}

}  // namespace

std::string ImageToolsMissing() {
    std::string missing;
    for (const char* tool : {"mkntfs", "mke2fs", "sfdisk", "qemu-img", "qemu-nbd", "ntfscat", "ntfsfix", "fsntfsinfo"})
        if (Capture(std::string("command -v ") + tool + " >/dev/null || test -x /usr/sbin/" + tool).first != 0)
            missing += std::string(missing.empty() ? "" : " ") + tool;
    return missing;
}

ScratchDir::ScratchDir() {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir != nullptr ? dir : "/tmp") + "/tamvik-image-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

ScratchDir::~ScratchDir() { Capture("rm -rf " + Quoted(path_)); }

void MakeNtfs(const std::string& file, std::uint64_t size, const std::string& label, const std::vector<NtfsFile>& files) {
    Run("truncate -s " + std::to_string(size) + " " + Quoted(file) + " && PATH=$PATH:/usr/sbin mkntfs -F -f -q -L " +
        Quoted(label) + " " + Quoted(file));
    ntfs_volume* volume = ntfs_mount(file.c_str(), NTFS_MNT_NONE);
    if (volume == nullptr) throw std::runtime_error("libntfs-3g can't mount " + file);
    for (const NtfsFile& item : files) {
        ntfs_inode* at = ntfs_inode_open(volume, FILE_root);
        for (std::size_t start = 0, slash; at != nullptr; start = slash + 1) {
            slash = item.path.find('/', start);
            if (item.compressed && slash == std::string::npos)
                at->flags = static_cast<FILE_ATTR_FLAGS>(at->flags | FILE_ATTR_COMPRESSED);
            ntfs_inode* next = Child(at, item.path.substr(start, slash - start), slash != std::string::npos);
            ntfs_inode_close(at);
            at = next;
            if (slash == std::string::npos) break;
        }
        ntfs_attr* data = ntfs_attr_open(at, AT_DATA, AT_UNNAMED, 0);
        if (data == nullptr || ntfs_attr_pwrite(data, 0, static_cast<s64>(item.bytes.size()), item.bytes.data()) !=
                                   static_cast<s64>(item.bytes.size()))
            throw std::runtime_error("libntfs-3g can't write " + item.path);
        ntfs_attr_close(data);
        if (item.encrypted) {
            at->flags = static_cast<FILE_ATTR_FLAGS>(at->flags | FILE_ATTR_ENCRYPTED);
            NInoSetDirty(at);
        }
        ntfs_inode_close(at);
    }
    ntfs_umount(volume, FALSE);
}

namespace {

void Put(Bytes& page, std::size_t at, std::uint64_t value, int size) {
    for (int i = 0; i < size; ++i) page[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

// A journal restart page as Windows leaves one: the header (with its update
// sequence array), a restart area naming one client in use, and that client.
Bytes RestartPage(std::uint64_t logSize, bool clean, bool fastStartup) {
    constexpr std::size_t kPage = 4096, kArea = 0x30, kClients = 0x30, kClient = 0xA0;
    Bytes page(kPage, 0);
    std::copy_n("RSTR", 4, page.begin());
    Put(page, 4, 0x1E, 2);                          // update sequence array offset
    Put(page, 6, kPage / 512 + 1, 2);               // and count
    Put(page, 16, kPage, 4);                        // system page size
    Put(page, 20, kPage, 4);                        // log page size
    Put(page, 24, kArea, 2);                        // restart area offset
    Put(page, 26, fastStartup ? 0 : 1, 2);          // minor version
    Put(page, 28, fastStartup ? 2 : 1, 2);          // major version
    Put(page, kArea + 8, 1, 2);                     // clients
    Put(page, kArea + 10, 0xFFFF, 2);               // free list: none
    Put(page, kArea + 12, 0, 2);                    // in-use list: client 0
    Put(page, kArea + 14, clean ? 2 : 0, 2);        // flags: the volume is clean
    int bits = 0;
    for (std::uint64_t size = logSize; size != 0; size >>= 1) ++bits;
    Put(page, kArea + 16, 67 - bits, 4);            // sequence number bits
    Put(page, kArea + 20, kClients + kClient, 2);   // restart area length
    Put(page, kArea + 22, kClients, 2);             // client array offset
    Put(page, kArea + 24, logSize, 8);              // file size
    Put(page, kArea + 36, 0x30, 2);                 // log record header length
    Put(page, kArea + 38, 0x40, 2);                 // log page data offset
    Put(page, kArea + kClients + 16, 0xFFFF, 2);    // previous client
    Put(page, kArea + kClients + 18, 0xFFFF, 2);    // next client
    ntfs_mst_pre_write_fixup(reinterpret_cast<NTFS_RECORD*>(page.data()), kPage);
    return page;
}

}  // namespace

void SpoilNtfs(const std::string& file, const std::string& how) {
    ntfs_volume* volume = ntfs_mount(file.c_str(), NTFS_MNT_NONE);
    if (volume == nullptr) throw std::runtime_error("libntfs-3g can't mount " + file);
    if (how == "dirty") ntfs_volume_write_flags(volume, static_cast<le16>(volume->flags | VOLUME_IS_DIRTY));
    ntfs_inode* log = ntfs_inode_open(volume, FILE_LogFile);
    ntfs_attr* data = ntfs_attr_open(log, AT_DATA, AT_UNNAMED, 0);
    const Bytes page = RestartPage(static_cast<std::uint64_t>(data->data_size), how != "unclean", how == "fast-startup");
    for (s64 at : {0, 4096})
        if (how != "dirty") ntfs_attr_pwrite(data, at, static_cast<s64>(page.size()), page.data());
    ntfs_attr_close(data);
    ntfs_inode_close(log);
    ntfs_umount(volume, FALSE);
}

std::uint64_t MakeDisk(const std::string& disk, Table table, const std::string& volume, bool twice) {
    if (table == Table::None) {
        Run("cp " + Quoted(volume) + " " + Quoted(disk));
        return 0;
    }
    const std::uint64_t start = table == Table::Gpt ? 4096 : 6144;  // sectors
    const std::uint64_t bytes = ReadFileBytes(volume).size(), again = start + bytes / 512;
    const std::string ntfs = "type=EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\\n";
    const std::string layout =
        table == Table::Gpt ? "label: gpt\\nstart=2048, size=1025, type=L\\nstart=4096, " +
                                  (twice ? "size=" + std::to_string(bytes / 512) + ", " + ntfs + "start=" +
                                               std::to_string(again) + ", " : "") + ntfs
                            : "label: dos\\nstart=2048, size=1025, type=83\\nstart=4096, type=5\\nstart=6144, type=7\\n";
    Run("truncate -s " + std::to_string(start * 512 + bytes * (twice ? 2 : 1) + (1 << 20)) + " " + Quoted(disk) +
        " && printf '" + layout + "' | PATH=$PATH:/usr/sbin sfdisk -q " + Quoted(disk));
    for (std::uint64_t at : twice ? std::vector<std::uint64_t>{start, again} : std::vector<std::uint64_t>{start})
        Run("dd if=" + Quoted(volume) + " of=" + Quoted(disk) + " bs=512 seek=" + std::to_string(at) +
            " conv=notrunc status=none");
    // Partition 1 (of an odd size: a count read a byte too long shows) holds
    // ext2 labelled "linux", made in place.
    Run("PATH=$PATH:/usr/sbin mke2fs -q -F -t ext2 -L linux -E offset=1048576 " + Quoted(disk) + " 512k");
    return start * 512;
}

void ConvertImage(const std::string& raw, const std::string& format, const std::string& to, const std::string& options) {
    Run("qemu-img convert -f raw -O " + format + (options.empty() ? "" : " -o " + options) + " " + Quoted(raw) + " " +
        Quoted(to));
}

namespace {

// The NTFS at start as a file of its own, in the scratch folder, as long as
// its boot sector says (its backup copy is the last sector).
std::string RawVolume(const std::string& image, std::uint64_t start, const ScratchDir& scratch) {
    Run("qemu-img convert -U -O raw " + Quoted(image) + " " + Quoted(scratch / "extract.raw") + " && dd if=" +
        Quoted(scratch / "extract.raw") + " of=" + Quoted(scratch / "extract.ntfs") + " bs=512 skip=" +
        std::to_string(start / 512) + " status=none");
    const Bytes boot = ReadFileBytes(scratch / "extract.ntfs");
    std::uint64_t sectors = 0;  // NTFS boot sector: total sectors, u64 at 40
    for (int i = 7; i >= 0 && boot.size() > 48; --i) sectors = sectors << 8 | boot[40 + i];
    Run("truncate -s " + std::to_string((sectors + 1) * 512) + " " + Quoted(scratch / "extract.ntfs"));
    return scratch / "extract.ntfs";
}

}  // namespace

Bytes ExtractFile(const std::string& image, std::uint64_t start, const std::string& path, const ScratchDir& scratch) {
    Run("ntfscat " + Quoted(RawVolume(image, start, scratch)) + " " + Quoted(path) + " > " +
        Quoted(scratch / "extract.file"));
    return ReadFileBytes(scratch / "extract.file");
}

std::string NtfsComplaints(const std::string& image, std::uint64_t start, const ScratchDir& scratch) {
    const std::string volume = Quoted(RawVolume(image, start, scratch));
    std::string said;
    for (const std::string& check : {"ntfsfix -n " + volume, "fsntfsinfo " + volume}) {
        const auto [status, out] = Capture(check + " 2>&1");
        if (status != 0) said += check + ": " + out;
    }
    return said;
}

Bytes SmallHive(const std::string& name) {
    HiveBuilder builder;
    builder.AddTree(TreeKey{"ROOT", {{"Where", 1, {'i', 0, 'n', 0, 0, 0}}},
                            {TreeKey{name, {{"N", 4, {1, 0, 0, 0}}, {"B", 3, Bytes(300, 7)}}}, TreeKey{"Other"}}});
    return builder.Build();
}

std::vector<NtfsFile> WindowsFiles() {
    return {{kSystem, SmallHive("Select")},
            {kSystem + ".LOG1", Bytes(512, 0)},
            {"Windows/System32/config/SOFTWARE", SmallHive("Microsoft")},
            {"Windows/System32/config/systemprofile/x", Bytes(1, 0)},
            {"Users/Jos\xc3\xa9/NTUSER.DAT", SmallHive("Software")},
            {"Users/Jos\xc3\xa9/AppData/Local/Microsoft/Windows/UsrClass.dat", SmallHive("Local Settings")},
            {"Users/Public/desktop.ini", Bytes(10, ' ')},
            {"EFI/Microsoft/Boot/BCD", SmallHive("Objects")},
            {"secret.dat", Bytes(8192, 1), true}};
}

Kit MakeImage(const ScratchDir& scratch, Table table, const std::string& format, const std::string& options,
              std::vector<NtfsFile> files, const std::string& spoil, bool twice) {
    MakeNtfs(scratch / "volume.ntfs", 16 << 20, "Windows", files);
    if (!spoil.empty()) SpoilNtfs(scratch / "volume.ntfs", spoil);
    const std::uint64_t start = MakeDisk(scratch / "disk.raw", table, scratch / "volume.ntfs", twice);
    if (format == "raw") return {scratch / "disk.raw", start};
    ConvertImage(scratch / "disk.raw", format, scratch / ("disk." + format), options);
    return {scratch / ("disk." + format), start};
}

std::string FileDigest(const std::string& path) { return Run("sha256sum < " + Quoted(path)); }

void PatchFile(const std::string& path, std::uint64_t offset, const Bytes& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace TamvikTest
