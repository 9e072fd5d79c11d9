#include "HiveSource.h"

#include <cerrno>

#include "HiveFile.h"
#include "HiveInImage.h"
#include "Session.h"
#include "ToolError.h"

namespace TamvikTool {

namespace ti = TamvikImage;

struct ImageSource::Impl {
    std::unique_ptr<ti::HiveInImage> opened;
};

namespace {

// The tool's status for a failure underneath: a lock and an unsafe volume
// have their own, a partition the user must choose is a usage error.
[[noreturn]] void Fail(const ti::HiveInImageError& error) {
    switch (error.kind) {
        case ti::ErrorKind::Locked: throw ToolError(error.text, kExitLocked);
        case ti::ErrorKind::Unsafe:
            throw ToolError(error.text + ": writing to it would lose what Windows holds in memory, so the edit is "
                                         "refused (read commands still work)",
                            kExitUnsafe);
        // Callers that tell a missing file by errno (the Python package) see it so.
        case ti::ErrorKind::NotFound: errno = ENOENT; break;
        default: errno = 0; break;
    }
    if (error.candidates.size() > 1) UsageError(error.text + " with --partition N (see tamvik hives)");
    throw ToolError(error.text);
}

}  // namespace

ImageSource::ImageSource(const HivePlace& place, bool forEdit)
    : HiveSource(place.image + ":" + place.hive), impl_(std::make_unique<Impl>()) {
    ti::HiveInImageError error;
    impl_->opened = ti::HiveInImage::Open(place.image, place.hive, {forEdit, place.partition, "", place.overlay}, error);
    if (!impl_->opened) Fail(error);
}

ImageSource::~ImageSource() = default;

bool ImageSource::ReadHive(Bytes* bytes, std::string* error, std::size_t limit) {
    ti::Error failure;
    if (impl_->opened->GetVolume().Read(impl_->opened->HivePath(), *bytes, failure, limit)) return true;
    *error = failure.text;
    return false;
}

std::vector<std::string> ImageSource::Logs() { return impl_->opened->GetVolume().LogsBeside(impl_->opened->HivePath()); }

bool ImageSource::ReadLog(const std::string& path, Bytes* bytes, std::string* error) {
    ti::Error failure;
    if (impl_->opened->GetVolume().Read(path, *bytes, failure)) return true;
    *error = failure.text;
    return false;
}

Tamvik::HiveAccess& ImageSource::OpenHive(bool writable) {
    ti::HiveInImageError error;
    if (!impl_->opened->OpenHive(writable ? Tamvik::OpenMode::Writable : Tamvik::OpenMode::ReadOnly, error)) {
        // A file too short or not marked as a hive fails at its first read:
        // its base block tells why better than the read does.
        if (!error.hive.Ok() && (error.hive.code == Tamvik::StatusCode::NotAHive || !WhyNotAHive(*this).empty()))
            throw NotAHive(*this, Name());
        Fail(error);
    }
    return *impl_->opened->Hive();
}

void ImageSource::Close() {
    if (const ti::HiveInImageError error = impl_->opened->Close())
        throw ToolError(error.text + " (the image may hold only part of the edit)");
}

}  // namespace TamvikTool
