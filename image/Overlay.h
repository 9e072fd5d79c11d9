// A qcow2 overlay over an image, as qemu-img create -b makes it: the changes
// go to the overlay, and the image stays byte for byte as it was.
#pragma once

#include <string>

#include "TamvikImage.h"

namespace TamvikImage {

// Creates overlay (which must not exist yet) over image, in the given format,
// naming the image by its absolute path.
Error CreateOverlay(const std::string& image, const std::string& format, const std::string& overlay);

}  // namespace TamvikImage
