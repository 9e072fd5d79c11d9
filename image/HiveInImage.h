// A hive inside a disk image as one piece, for the tool and the Python
// binding: the image (opened for writing only for edits, or through a new
// overlay), the NTFS partition that holds the hive, its volume, a device on
// it and the hive read through that device with the internal API, closed in
// the order that makes every change durable. A static library of its own:
// libtamvik-image.so doesn't link the hive library, and libtamvik.so exports
// the 28 functions only.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "TamvikImage.h"
#include "api/HiveAccess.h"

namespace TamvikImage {

struct HiveInImageOptions {
    // For edits: the image, the volume and then the hive open for writing.
    bool writable = false;
    // A number of Image::Partitions(); -1: the one NTFS partition holding the hive.
    int partition = -1;
    std::string format;   // as OpenOptions::format
    std::string overlay;  // as OpenOptions::overlay: the edits go into this new qcow2 file
};

// Why a step failed: the image library's kind (Locked, Unsafe, NotFound, ...),
// or None when the hive library refused the file, with its status in hive.
// candidates lists the partitions holding the path when more than one does
// (kind Unsupported: the caller must choose).
struct HiveInImageError {
    ErrorKind kind = ErrorKind::None;
    Tamvik::Status hive;
    std::vector<int> candidates;
    std::string text;
    explicit operator bool() const { return kind != ErrorKind::None || !hive.Ok(); }
};

class HiveInImage {
public:
    // Opens the image and the volume of the partition holding hivePath (any
    // letter case, '/' or '\'); the hive itself opens with OpenHive. Null with
    // the reason in error on failure.
    static std::unique_ptr<HiveInImage> Open(const std::string& imagePath, const std::string& hivePath,
                                             const HiveInImageOptions& options, HiveInImageError& error);
    // Closes as Close does, dropping its error.
    ~HiveInImage();
    HiveInImage(const HiveInImage&) = delete;
    HiveInImage& operator=(const HiveInImage&) = delete;

    Image& GetImage() { return *image_; }
    Volume& GetVolume() { return *volume_; }
    int Partition() const { return partition_; }
    const std::string& HivePath() const { return hivePath_; }

    // Reads the hive once through a device on the volume; with Writable, each
    // call's changes go through to the file before the call returns. Once.
    bool OpenHive(Tamvik::OpenMode mode, HiveInImageError& error);
    // The hive OpenHive opened, or null.
    Tamvik::HiveAccess* Hive() { return hive_.get(); }

    // Closes the hive (its file's record written), syncs the volume, flushes
    // the image and lets it go (qemu-nbd has exited on return), in that
    // order; gives the first failure. Closing again does nothing.
    HiveInImageError Close();

    class Device;

private:
    HiveInImage() = default;

    std::string hivePath_;
    int partition_ = 0;
    std::unique_ptr<Image> image_;
    std::unique_ptr<Volume> volume_;
    std::unique_ptr<Device> device_;
    std::unique_ptr<Tamvik::HiveAccess> hive_;
};

}  // namespace TamvikImage
