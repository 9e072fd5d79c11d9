// The hive library's device over files of an NTFS volume: each file read
// once into memory at open, writes through to the file at once.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "Internals.h"

namespace TamvikImage {
namespace {

// Cell offsets in a hive are 32-bit and count from byte 4096: no hive file is
// longer, and the device keeps no longer file in memory.
constexpr std::uint64_t kLargestFile = (1ull << 32) + 4096;

struct OpenFile {
    std::string path;
    ntfs_inode* inode = nullptr;
    ntfs_attr* data = nullptr;
    std::vector<std::uint8_t> bytes;  // the file as it stands, kept equal to the volume's copy
    std::uint64_t position = 0;
    bool written = false;
    bool broken = false;  // a write failed part way: memory and volume may differ
};

std::string Utf8(const char16_t* text) {
    std::string out;
    for (; text != nullptr && *text != 0; ++text) {
        std::uint32_t c = *text;
        if (c >= 0xD800 && c < 0xDC00 && text[1] >= 0xDC00 && text[1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (*++text - 0xDC00);  // a surrogate pair
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

struct __attribute__((visibility("hidden"))) VolumeDevice::Impl {
    explicit Impl(Volume::Impl& volume_) : volume(volume_) {}

    bool Refuse(Error error) {
        last = std::move(error);
        return false;
    }
    // The open file of a handle, or null (and last set) for a handle we didn't
    // give or whose file a failed write left in doubt.
    OpenFile* Find(void* handle) {
        for (const auto& file : files) {
            if (file.get() != handle) continue;
            if (!file->broken) return file.get();
            last = Fail(ErrorKind::Io, file->path + ": an earlier write failed part way; only a close is taken");
            return nullptr;
        }
        last = Fail(ErrorKind::Io, handle == nullptr ? "no file is open under a null handle"
                                                     : "the handle names no usable open file");
        return nullptr;
    }
    // elementSize * count at the file's position, unless it overflows.
    bool Span(OpenFile& file, std::uint32_t elementSize, const std::uint32_t* count, std::uint64_t& length) {
        if (count == nullptr) return Refuse(Fail(ErrorKind::Io, "no count"));
        length = static_cast<std::uint64_t>(elementSize) * *count;
        if (file.position > static_cast<std::uint64_t>(std::numeric_limits<s64>::max()) - length)
            return Refuse(Fail(ErrorKind::Io, file.path + ": position past any file's end"));
        return true;
    }
    bool Close(OpenFile& file) {
        Error error;
        if (file.written) ntfs_inode_update_times(file.inode, static_cast<ntfs_time_update_flags>(NTFS_UPDATE_MCTIME));
        ntfs_attr_close(file.data);
        volume.Begin();
        if (ntfs_inode_close(file.inode) != 0) error = volume.Failure("closing " + file.path, errno);
        if (!error && file.written) error = volume.window->disk->Flush();
        files.erase(std::find_if(files.begin(), files.end(), [&](const auto& f) { return f.get() == &file; }));
        return error ? Refuse(error) : true;
    }

    Volume::Impl& volume;
    std::vector<std::unique_ptr<OpenFile>> files;
    Error last;
};

VolumeDevice::VolumeDevice(Volume& volume) : impl_(std::make_unique<Impl>(volume.Internal())) {}

VolumeDevice::~VolumeDevice() {
    while (!impl_->files.empty()) impl_->Close(*impl_->files.back());
}

const Error& VolumeDevice::LastError() const { return impl_->last; }

bool VolumeDevice::DeviceOpen(void** handle, const char16_t* path, std::uint32_t, std::uint32_t, std::uint32_t) {
    if (handle == nullptr) return impl_->Refuse(Fail(ErrorKind::Io, "no place for the handle"));
    auto file = std::make_unique<OpenFile>();
    file->path = Utf8(path);
    Error error;
    if (!impl_->volume.OpenData(file->path, impl_->volume.writable, file->inode, file->data, error))
        return impl_->Refuse(error);
    if (static_cast<std::uint64_t>(file->data->data_size) > kLargestFile)
        error = Fail(ErrorKind::Unsupported, file->path + ": larger than any hive can be");
    if (error || !impl_->volume.ReadData(file->data, kLargestFile, file->bytes, error)) {
        ntfs_attr_close(file->data);
        ntfs_inode_close(file->inode);
        return impl_->Refuse(error);
    }
    *handle = file.get();
    impl_->files.push_back(std::move(file));
    impl_->last = {};
    return true;
}

bool VolumeDevice::DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) {
    OpenFile* file = impl_->Find(handle);
    if (file == nullptr) return false;
    const std::uint64_t base = origin == 0 ? 0 : origin == 1 ? file->position : file->bytes.size();
    const std::int64_t target = static_cast<std::int64_t>(base + position);  // a negative offset wraps back
    if (origin > 2 || (origin != 0 && target < 0))
        return impl_->Refuse(Fail(ErrorKind::Io, file->path + ": bad seek"));
    file->position = origin == 0 ? position : static_cast<std::uint64_t>(target);
    return true;
}

bool VolumeDevice::DeviceRead(void* handle, void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    OpenFile* file = impl_->Find(handle);
    std::uint64_t length = 0;
    if (file == nullptr || !impl_->Span(*file, elementSize, count, length)) return false;
    if (file->position + length > file->bytes.size())
        return impl_->Refuse(Fail(ErrorKind::Io, file->path + ": read of " + std::to_string(length) + " bytes at " +
                                                     std::to_string(file->position) + " past the end (" +
                                                     std::to_string(file->bytes.size()) + " bytes)"));
    if (length > 0) std::memcpy(buffer, file->bytes.data() + file->position, length);
    file->position += length;
    return true;
}

bool VolumeDevice::DeviceWrite(void* handle, const void* buffer, std::uint32_t elementSize, std::uint32_t* count) {
    OpenFile* file = impl_->Find(handle);
    std::uint64_t length = 0;
    if (file == nullptr || !impl_->Span(*file, elementSize, count, length)) return false;
    if (!impl_->volume.writable)
        return impl_->Refuse(Fail(ErrorKind::Unsupported, file->path + ": the volume is open for reading only"));
    const std::uint64_t end = file->position + length;
    if (end > kLargestFile)
        return impl_->Refuse(Fail(ErrorKind::Unsupported, file->path + ": a write past the largest a hive can be"));
    const bool grows = length > 0 && end > file->bytes.size();
    const auto* source = static_cast<const std::uint8_t*>(buffer);
    for (std::uint64_t done = 0; done < length;) {
        impl_->volume.Begin();
        const s64 put = ntfs_attr_pwrite(file->data, static_cast<s64>(file->position + done),
                                         static_cast<s64>(length - done), source + done);
        if (put <= 0) {
            file->broken = done > 0;
            return impl_->Refuse(impl_->volume.Failure("write to " + file->path, put < 0 ? errno : EIO));
        }
        done += static_cast<std::uint64_t>(put);
    }
    file->written = true;
    if (grows) file->bytes.resize(end);
    if (length > 0) std::memcpy(file->bytes.data() + file->position, source, length);
    file->position = end;
    // A longer file has a new size and new runs in its record: write them now,
    // so that the growth is in the image when the call returns.
    if (grows && ntfs_inode_sync(file->inode) != 0) {
        file->broken = true;
        return impl_->Refuse(impl_->volume.Failure("recording the new size of " + file->path, errno));
    }
    return true;
}

bool VolumeDevice::DeviceClose(void* handle) {
    for (const auto& file : impl_->files)
        if (file.get() == handle) return impl_->Close(*file);
    return impl_->Refuse(Fail(ErrorKind::Io, "the handle names no open file"));
}

}  // namespace TamvikImage
