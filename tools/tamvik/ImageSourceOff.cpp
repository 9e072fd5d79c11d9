// A tool built without libtamvik-image (TAMVIK_IMAGE=OFF) says so to --image and hives.
#include "Commands.h"
#include "HiveSource.h"
#include "ToolError.h"

namespace TamvikTool {

struct ImageSource::Impl {};

ImageSource::ImageSource(const HivePlace& place, bool) : HiveSource(place.image + ":" + place.hive) {
    throw ToolError(place.image + ": this tamvik was built without disk-image support (TAMVIK_IMAGE=OFF)");
}
ImageSource::~ImageSource() = default;
bool ImageSource::ReadHive(Bytes*, std::string*, std::size_t) { return false; }
std::vector<std::string> ImageSource::Logs() { return {}; }
bool ImageSource::ReadLog(const std::string&, Bytes*, std::string*) { return false; }
Tamvik::HiveAccess& ImageSource::OpenHive(bool) { throw ToolError("no disk-image support"); }
void ImageSource::Close() {}

int RunHives(const Args& args) {
    throw ToolError(args.positional[0] + ": this tamvik was built without disk-image support (TAMVIK_IMAGE=OFF)");
}

}  // namespace TamvikTool
