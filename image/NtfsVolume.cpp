// NTFS volumes through libntfs-3g: mounting with its safety checks, paths as
// Windows matches them, folders and files.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "Internals.h"

namespace TamvikImage {
namespace {

thread_local std::string lastMessage;

// libntfs-3g reports to its log, not to its caller: keep the last complaint
// for the error text instead of printing it.
int KeepMessage(const char*, const char*, int, u32 level, void*, const char* format, va_list args) {
    const int saved = errno;
    if (!(level & (NTFS_LOG_LEVEL_WARNING | NTFS_LOG_LEVEL_ERROR | NTFS_LOG_LEVEL_PERROR | NTFS_LOG_LEVEL_CRITICAL)))
        return 0;
    char text[512];
    const int length = std::vsnprintf(text, sizeof text, format, args);
    lastMessage = text;
    if (level & NTFS_LOG_LEVEL_PERROR) lastMessage += std::string(": ") + std::strerror(saved);
    while (!lastMessage.empty() && (lastMessage.back() == '\n' || lastMessage.back() == '.')) lastMessage.pop_back();
    errno = saved;
    return length;
}

// "a\\B//c/" -> "/a/B/c": ntfs_pathname_to_inode takes '/' only.
std::string NtfsPath(const std::string& path) {
    std::string result;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != '/' && path[i] != '\\') continue;
        if (i > start) result += "/" + path.substr(start, i - start);
        start = i + 1;
    }
    return result.empty() ? "/" : result;
}

Error MountFailure(const std::string& name, int errnoValue, const PartitionWindow& window) {
    const std::string said = lastMessage.empty() ? std::strerror(errnoValue) : lastMessage;
    switch (ntfs_volume_error(errnoValue)) {
        case NTFS_VOLUME_HIBERNATED:
            return Fail(ErrorKind::Unsafe, name + ": Windows left the volume hibernated or suspended by fast "
                                                  "startup (" + said + "); it can be read, not written");
        case NTFS_VOLUME_UNCLEAN_UNMOUNT:
            return Fail(ErrorKind::Unsafe, name + ": the volume's journal isn't clean (" + said +
                                                  "); it can be read, not written until Windows shuts it down cleanly");
        case NTFS_VOLUME_NOT_NTFS:
        case NTFS_VOLUME_CORRUPT:
            return Fail(ErrorKind::Damaged, name + ": not a sound NTFS volume (" + said + ")");
        default:
            return Fail(ErrorKind::Io, name + ": " + (window.last ? window.last.text : said));
    }
}

}  // namespace

std::string LastNtfsMessage() { return lastMessage; }

std::unique_ptr<Volume::Impl> MountNtfs(const std::string& imagePath, std::shared_ptr<Block> disk,
                                        const Partition& partition, bool writable, Error& error) {
    static std::once_flag quiet;
    std::call_once(quiet, [] { ntfs_log_set_handler(KeepMessage); });
    auto impl = std::make_unique<Volume::Impl>();
    impl->name = imagePath + (partition.number > 0 ? " partition " + std::to_string(partition.number) : "");
    impl->window = std::make_unique<PartitionWindow>();
    impl->window->disk = std::move(disk);
    impl->window->start = partition.start;
    impl->window->size = partition.size;
    impl->writable = writable;
    ntfs_device* device = MakeNtfsDevice(impl->name, *impl->window);
    if (device == nullptr) {
        error = FailErrno(ErrorKind::Io, impl->name, errno);
        return nullptr;
    }
    lastMessage.clear();
    // Never NTFS_MNT_RECOVER (it resets the journal) nor NTFS_MNT_IGNORE_HIBERFILE.
    impl->volume = ntfs_device_mount(device, writable ? NTFS_MNT_NONE : NTFS_MNT_RDONLY);
    if (impl->volume == nullptr) {
        error = MountFailure(impl->name, errno, *impl->window);
        ntfs_device_free(device);
        return nullptr;
    }
    if (writable && (impl->volume->flags & VOLUME_IS_DIRTY)) {
        error = Fail(ErrorKind::Unsafe, impl->name + ": Windows marked the volume dirty (chkdsk is due); it can be "
                                                     "read, not written");
        return nullptr;
    }
    NVolClearCaseSensitive(impl->volume);  // names match in any case; listings keep theirs
    impl->label = impl->volume->vol_name != nullptr ? impl->volume->vol_name : "";
    return impl;
}

Volume::Impl::~Impl() {
    if (volume != nullptr) ntfs_umount(volume, FALSE);
}

Error Volume::Impl::Failure(const std::string& what, int errnoValue) const {
    std::string text = name + ": " + what + ": " + std::strerror(errnoValue);
    if (window->last) text += " (" + window->last.text + ")";
    else if (!lastMessage.empty()) text += " (" + lastMessage + ")";
    return Fail(errnoValue == ENOENT ? ErrorKind::NotFound : ErrorKind::Io, text);
}

void Volume::Impl::Begin() {
    lastMessage.clear();
    window->last = {};
}

ntfs_inode* Volume::Impl::Resolve(const std::string& path, Error& error) {
    Begin();
    ntfs_inode* inode = ntfs_pathname_to_inode(volume, nullptr, NtfsPath(path).c_str());
    if (inode == nullptr) error = Failure(path, errno);
    return inode;
}

Volume::Volume(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Volume::~Volume() = default;

std::unique_ptr<Volume> Volume::Open(Image& image, int partition, bool writable, Error& error) {
    error = {};
    const Image::Impl& disk = image.Internal();
    std::string numbers;
    for (const Partition& candidate : disk.table.partitions) {
        numbers += (numbers.empty() ? "" : ", ") + std::to_string(candidate.number);
        if (candidate.number != partition) continue;
        if (candidate.fileSystem != FileSystem::Ntfs) {
            error = Fail(ErrorKind::Unsupported, disk.path + ": partition " + std::to_string(partition) + " holds " +
                                                     FileSystemName(candidate.fileSystem) + ", not NTFS");
            return nullptr;
        }
        if (writable && !image.Writable()) {
            error = Fail(ErrorKind::Unsupported, disk.path + ": the image is open for reading only");
            return nullptr;
        }
        std::unique_ptr<Impl> impl = MountNtfs(disk.path, disk.disk, candidate, writable, error);
        return impl ? std::unique_ptr<Volume>(new Volume(std::move(impl))) : nullptr;
    }
    error = Fail(ErrorKind::NotFound, disk.path + ": no partition " + std::to_string(partition) +
                                          " (there are: " + (numbers.empty() ? "none" : numbers) + ")");
    return nullptr;
}

const std::string& Volume::Label() const { return impl_->label; }
bool Volume::Writable() const { return impl_->writable; }

namespace {

struct Listed {
    std::string name;
    MFT_REF reference;
};

int Collect(void* into, const ntfschar* name, const int length, const int nameType, const s64, const MFT_REF reference,
            const unsigned) {
    if (nameType == FILE_NAME_DOS) return 0;  // the 8.3 twin of a long name
    char* text = nullptr;
    if (ntfs_ucstombs(name, length, &text, 0) < 0) return 0;
    if (std::strcmp(text, ".") != 0 && std::strcmp(text, "..") != 0)
        static_cast<std::vector<Listed>*>(into)->push_back({text, reference});
    std::free(text);
    return 0;
}

// Size of the unnamed data stream; 0 for a folder.
void Describe(ntfs_inode* inode, Entry& entry) {
    entry.directory = inode->mrec->flags & MFT_RECORD_IS_DIRECTORY;
    entry.size = 0;
    if (entry.directory) return;
    if (ntfs_attr* data = ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0)) {
        entry.size = static_cast<std::uint64_t>(data->data_size);
        ntfs_attr_close(data);
    }
}

}  // namespace

bool Volume::Stat(const std::string& path, Entry& entry, Error& error) {
    error = {};
    ntfs_inode* inode = impl_->Resolve(path, error);
    if (inode == nullptr) return false;
    const std::string normal = NtfsPath(path);
    entry.name = normal.substr(normal.rfind('/') + 1);
    Describe(inode, entry);
    ntfs_inode_close(inode);
    return true;
}

bool Volume::List(const std::string& directory, std::vector<Entry>& entries, Error& error) {
    error = {};
    entries.clear();
    ntfs_inode* inode = impl_->Resolve(directory, error);
    if (inode == nullptr) return false;
    std::vector<Listed> listed;
    s64 position = 0;
    const bool isFolder = inode->mrec->flags & MFT_RECORD_IS_DIRECTORY;
    const int read = isFolder ? ntfs_readdir(inode, &position, &listed, Collect) : 0;
    const int saved = errno;
    ntfs_inode_close(inode);
    if (!isFolder) error = Fail(ErrorKind::Unsupported, impl_->name + ": " + directory + ": not a folder");
    else if (read != 0) error = impl_->Failure("listing " + directory, saved);
    if (error) return false;
    for (const Listed& item : listed) {
        Entry entry;
        entry.name = item.name;
        if (ntfs_inode* child = ntfs_inode_open(impl_->volume, MREF(item.reference))) {
            Describe(child, entry);
            ntfs_inode_close(child);
        }
        entries.push_back(entry);
    }
    return true;
}

bool Volume::Impl::OpenData(const std::string& path, bool forWriting, ntfs_inode*& inode, ntfs_attr*& data,
                            Error& error) {
    inode = Resolve(path, error);
    if (inode == nullptr) return false;
    data = nullptr;
    if (inode->mrec->flags & MFT_RECORD_IS_DIRECTORY)
        error = Fail(ErrorKind::Unsupported, name + ": " + path + ": a folder, not a file");
    else if (inode->flags & FILE_ATTR_ENCRYPTED)
        error = Fail(ErrorKind::Encrypted, name + ": " + path + ": the file is encrypted (EFS); it can't be read "
                                                                "without the user's key");
    else if ((data = ntfs_attr_open(inode, AT_DATA, AT_UNNAMED, 0)) == nullptr)
        error = Failure(path, errno);
    else if (forWriting && (data->data_flags & ATTR_COMPRESSION_MASK))
        error = Fail(ErrorKind::Unsupported, name + ": " + path + ": the file is NTFS-compressed, which libntfs-3g "
                                                                  "can't rewrite in place; it can be read");
    if (!error) return true;
    if (data != nullptr) ntfs_attr_close(data);
    ntfs_inode_close(inode);
    inode = nullptr;
    data = nullptr;
    return false;
}

bool Volume::Impl::ReadData(ntfs_attr* data, std::uint64_t limit, std::vector<std::uint8_t>& bytes, Error& error) {
    bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(data->data_size), limit)));
    for (std::size_t done = 0; done < bytes.size();) {
        Begin();
        const s64 got = ntfs_attr_pread(data, static_cast<s64>(done), static_cast<s64>(bytes.size() - done),
                                        bytes.data() + done);
        if (got <= 0) {
            error = Failure("read", got < 0 ? errno : EIO);
            return false;
        }
        done += static_cast<std::size_t>(got);
    }
    return true;
}

bool Volume::Read(const std::string& path, std::vector<std::uint8_t>& bytes, Error& error, std::uint64_t limit) {
    error = {};
    ntfs_inode* inode = nullptr;
    ntfs_attr* data = nullptr;
    if (!impl_->OpenData(path, false, inode, data, error)) return false;
    const bool read = impl_->ReadData(data, limit, bytes, error);
    ntfs_attr_close(data);
    ntfs_inode_close(inode);
    return read;
}

Error Volume::Sync() {
    if (!impl_->writable) return {};
    return impl_->window->disk->Flush();
}

}  // namespace TamvikImage
