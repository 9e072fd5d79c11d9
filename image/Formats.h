// Which of qemu's formats an image file is in, read from its own bytes (no
// subprocess: qemu-img info costs a few milliseconds a call), and whether
// qemu can rewrite it in place.
#pragma once

#include <string>

#include "TamvikImage.h"

namespace TamvikImage {

struct FormatFacts {
    std::string name = "raw";  // qemu's name: raw, qcow, qcow2, vmdk, vhdx, vpc, vdi
    // Why qemu can't rewrite it in place, or empty.
    std::string cannotWrite;
};

// Empty name in error cases (the file can't be read).
FormatFacts DetectFormat(const std::string& path, Error& error);

}  // namespace TamvikImage
