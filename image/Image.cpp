// Opening an image: its format, the block layer that serves it, its
// partition table and what each partition holds.
#include <unistd.h>

#include "Formats.h"
#include "Internals.h"
#include "Overlay.h"
#include "Probe.h"

namespace TamvikImage {

Image::Image(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

Image::~Image() { Close(); }

std::unique_ptr<Image> Image::Open(const std::string& path, const OpenOptions& options, Error& error) {
    error = {};
    const FormatFacts facts = DetectFormat(path, error);
    if (error) return nullptr;
    auto impl = std::make_unique<Impl>();
    impl->path = path;
    impl->format = options.format.empty() ? facts.name : options.format;
    const bool writable = options.writable || !options.overlay.empty();
    if (!options.overlay.empty()) {
        if ((error = CreateOverlay(path, impl->format, options.overlay))) return nullptr;
        impl->path = options.overlay;
        impl->format = "qcow2";
    } else if (writable && !facts.cannotWrite.empty() && impl->format == facts.name) {
        error = Fail(ErrorKind::Unsupported, path + ": " + facts.cannotWrite);
        return nullptr;
    }
    impl->disk = impl->format == "raw" ? OpenRawBlock(impl->path, writable, error)
                                       : OpenNbdBlock(impl->path, impl->format, writable, error);
    if (!impl->disk) {
        if (!options.overlay.empty()) unlink(options.overlay.c_str());  // ours, and of no use
        return nullptr;
    }
    impl->table = ReadPartitionTable(*impl->disk, error);
    if (error) return nullptr;
    for (Partition& partition : impl->table.partitions) {
        ProbeFileSystem(*impl->disk, partition);
        if (partition.fileSystem != FileSystem::Ntfs) continue;
        Error unreadable;
        if (auto volume = MountNtfs(impl->path, impl->disk, partition, false, unreadable))
            partition.label = volume->label;
        else
            impl->table.warnings.push_back(unreadable.text);
    }
    return std::unique_ptr<Image>(new Image(std::move(impl)));
}

const std::string& Image::Format() const { return impl_->format; }
const std::string& Image::Table() const { return impl_->table.scheme; }
std::uint64_t Image::Size() const { return impl_->disk->Size(); }
bool Image::Writable() const { return impl_->disk->Writable(); }
const std::vector<Partition>& Image::Partitions() const { return impl_->table.partitions; }
const std::vector<std::string>& Image::Warnings() const { return impl_->table.warnings; }
Error Image::Flush() { return impl_->disk->Flush(); }
Error Image::Close() { return impl_->disk->Close(); }

std::vector<int> Image::PartitionsHolding(const std::string& path) {
    std::vector<int> numbers;
    for (const Partition& partition : impl_->table.partitions) {
        Error error;
        Entry entry;
        std::unique_ptr<Volume> volume = partition.fileSystem == FileSystem::Ntfs
                                             ? Volume::Open(*this, partition.number, false, error)
                                             : nullptr;
        if (volume && volume->Stat(path, entry, error) && !entry.directory) numbers.push_back(partition.number);
    }
    return numbers;
}

}  // namespace TamvikImage
