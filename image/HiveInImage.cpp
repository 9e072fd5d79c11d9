#include "HiveInImage.h"

namespace TamvikImage {

// The image library's device, with the failure of its last close kept: the
// hive closes its file from a destructor, which drops the result.
class HiveInImage::Device : public CRegVolumeDevice {
public:
    explicit Device(Volume& volume) : inner_(volume) {}
    bool DeviceOpen(void** handle, const char16_t* path, std::uint32_t a, std::uint32_t s, std::uint32_t d) override {
        return inner_.DeviceOpen(handle, path, a, s, d);
    }
    bool DeviceSeek(void* handle, std::uint64_t position, std::uint32_t origin) override {
        return inner_.DeviceSeek(handle, position, origin);
    }
    bool DeviceRead(void* handle, void* buffer, std::uint32_t size, std::uint32_t* count) override {
        return inner_.DeviceRead(handle, buffer, size, count);
    }
    bool DeviceWrite(void* handle, const void* buffer, std::uint32_t size, std::uint32_t* count) override {
        return inner_.DeviceWrite(handle, buffer, size, count);
    }
    bool DeviceClose(void* handle) override {
        if (!inner_.DeviceClose(handle)) closeFailure_ = inner_.LastError();
        return !closeFailure_;
    }
    const Error& LastError() const { return inner_.LastError(); }
    const Error& CloseFailure() const { return closeFailure_; }

private:
    VolumeDevice inner_;
    Error closeFailure_;
};

namespace {

HiveInImageError From(const Error& error) { return {error.kind, {}, {}, error.text}; }

// UTF-16 of a UTF-8 path; false for bytes that aren't UTF-8.
bool Wide(const std::string& text, std::u16string& wide) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const int extra = lead < 0x80 ? 0 : (lead >> 5) == 6 ? 1 : (lead >> 4) == 14 ? 2 : (lead >> 3) == 30 ? 3 : -1;
        if (extra < 0 || text.size() - i <= static_cast<std::size_t>(extra)) return false;
        std::uint32_t c = extra == 0 ? lead : lead & (0x3F >> extra);
        for (int k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]);
            if ((next & 0xC0) != 0x80) return false;
            c = c << 6 | (next & 0x3F);
        }
        i += static_cast<std::size_t>(extra) + 1;
        if (c >= 0x110000 || (c >= 0xD800 && c < 0xE000)) return false;
        if (c >= 0x10000) {
            wide += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
            wide += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
        } else {
            wide += static_cast<char16_t>(c);
        }
    }
    return true;
}

std::string Listed(const std::vector<int>& numbers) {
    std::string text;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        text += (i == 0 ? "" : i + 1 == numbers.size() ? " and " : ", ") + std::to_string(numbers[i]);
    return text;
}

// The partition the hive is on: the one given, or the one NTFS partition that holds the path.
int ChoosePartition(Image& image, const std::string& imagePath, const std::string& hivePath, int given,
                    HiveInImageError& error) {
    if (given >= 0) return given;
    const std::vector<int> holding = image.PartitionsHolding(hivePath);
    if (holding.size() == 1) return holding.front();
    if (holding.empty()) {
        std::string seen;
        for (const Partition& p : image.Partitions())
            seen += (seen.empty() ? "" : ", ") + std::to_string(p.number) + " " + FileSystemName(p.fileSystem);
        error = {ErrorKind::NotFound, {}, {}, imagePath + ": no NTFS partition holds " + hivePath + " (partitions: " +
                                                  (seen.empty() ? "none" : seen) + ")"};
    } else {
        error = {ErrorKind::Unsupported, {}, holding,
                 imagePath + ": partitions " + Listed(holding) + " each hold " + hivePath + ": name one"};
    }
    return -1;
}

}  // namespace

std::unique_ptr<HiveInImage> HiveInImage::Open(const std::string& imagePath, const std::string& hivePath,
                                               const HiveInImageOptions& options, HiveInImageError& error) {
    error = {};
    std::unique_ptr<HiveInImage> opened(new HiveInImage());
    opened->hivePath_ = hivePath;
    Error failure;
    opened->image_ = Image::Open(imagePath, {options.writable, options.format, options.overlay}, failure);
    if (!opened->image_) {
        error = From(failure);
        return nullptr;
    }
    opened->partition_ = ChoosePartition(*opened->image_, imagePath, hivePath, options.partition, error);
    if (error) return nullptr;
    const bool writable = options.writable || !options.overlay.empty();
    opened->volume_ = Volume::Open(*opened->image_, opened->partition_, writable, failure);
    if (!opened->volume_) {
        error = From(failure);
        return nullptr;
    }
    return opened;
}

HiveInImage::~HiveInImage() { Close(); }

bool HiveInImage::OpenHive(Tamvik::OpenMode mode, HiveInImageError& error) {
    error = {};
    std::u16string path;
    if (hive_ || !volume_ || !Wide(hivePath_, path)) {
        error = {ErrorKind::Unsupported, {}, {},
                 hivePath_ + (hive_ || !volume_ ? ": the hive was opened already" : ": the path isn't UTF-8")};
        return false;
    }
    device_ = std::make_unique<Device>(*volume_);
    const Tamvik::Status status = Tamvik::HiveAccess::Open(device_.get(), path, mode, &hive_);
    if (status) return true;
    // The device's own reason (no such file, encrypted, ...) says more than the library's.
    if (device_->LastError()) {
        error = From(device_->LastError());
        error.hive = status;
    } else
        error = {ErrorKind::None, status, {}, hivePath_ + ": " + status.text};
    hive_.reset();
    device_.reset();
    return false;
}

HiveInImageError HiveInImage::Close() {
    HiveInImageError first;
    const auto keep = [&first](HiveInImageError error) {
        if (!first) first = std::move(error);
    };
    if (hive_) {
        const Tamvik::Status closed = hive_->Close();
        hive_.reset();
        if (!closed) keep({ErrorKind::Io, closed, {}, hivePath_ + ": " + closed.text});
        if (device_->CloseFailure()) keep(From(device_->CloseFailure()));
    }
    device_.reset();
    if (volume_) keep(From(volume_->Sync()));
    volume_.reset();
    if (image_) keep(From(image_->Close()));
    image_.reset();
    return first;
}

}  // namespace TamvikImage
